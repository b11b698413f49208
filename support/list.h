// The library's lists are singly linked through next, with a null head for an empty list. These
// are the one way they are appended to, counted, copied and released.
#ifndef OBS_SUPPORT_LIST_H
#define OBS_SUPPORT_LIST_H

#include <cstdint>

namespace obs {

template <typename Node>
uint32_t list_length(const Node *list) {
    uint32_t length = 0;
    for (; list; list = list->next) ++length;
    return length;
}

// Links item (and whatever hangs behind it) after the last element of *head, or makes it the
// head of an empty list. There is no tail pointer: each append walks the list.
template <typename Node>
void list_append(Node **head, Node *item) {
    Node **link = head;
    while (*link) link = &(*link)->next;
    *link = item;
}

// Copies of the elements of list (only the first when only_first is non-zero), each made by
// copy_one with its next null, linked in source order. An element copy_one cannot make (null)
// is left out.
template <typename Node, typename Copy>
Node *list_copy(const Node *list, int only_first, Copy copy_one) {
    Node *copy = nullptr;
    Node **link = &copy;
    for (; list; list = only_first ? nullptr : list->next) {
        if (Node *twin = copy_one(list)) {
            *link = twin;
            link = &twin->next;
        }
    }
    return copy;
}

// As list_copy, but all or nothing: when copy_one fails for one element, the copies made so far
// are released with release_list and the result is null.
template <typename Node, typename Copy, typename Release>
Node *list_copy_all(const Node *list, int only_first, Copy copy_one, Release release_list) {
    Node *copy = nullptr;
    Node **link = &copy;
    for (; list; list = only_first ? nullptr : list->next) {
        Node *twin = copy_one(list);
        if (!twin) {
            release_list(copy);
            return nullptr;
        }
        *link = twin;
        link = &twin->next;
    }
    return copy;
}

// Releases every element of list with release_one, reading each next before the release.
template <typename Node, typename Release>
void list_release(Node *list, Release release_one) {
    while (list) {
        Node *next = list->next;
        release_one(list);
        list = next;
    }
}

}  // namespace obs

#endif
