/* The one way the value model's lists grow: at the tail, found by walking from the head. */
#ifndef OBS_VALUE_LIST_APPEND_H
#define OBS_VALUE_LIST_APPEND_H

namespace obs {

/* Links item (and whatever hangs behind it) after the last element of *head, or makes it the
 * head of an empty list. Works for any node type chained through next. */
template <typename Node>
void list_append(Node **head, Node *item) {
    Node **link = head;
    while (*link) link = &(*link)->next;
    *link = item;
}

}  // namespace obs

#endif
