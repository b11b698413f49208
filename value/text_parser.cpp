// Recursive-descent parser of the value text format. The text arrives from other processes and
// is untrusted: it is measured once and every step is bounded by that end, each node's extent is
// taken from its length field and checked against what remains, nesting is bounded, and a
// refusal releases everything built so far. A step either fills its output completely or leaves
// it as it was.
#include "observability/value.h"

#include <climits>
#include <cstdlib>
#include <cstring>

namespace {

// Containers (arrays, kvlists, lists) that may enclose one another; a delivery thread's stack
// must hold that many parser frames.
constexpr int kMaxDepth = 64;
// Fields are converted in a 128-byte work buffer, terminator included.
constexpr size_t kMaxFieldLength = 127;

template <size_t N>
bool starts_with(const char *text, const char (&word)[N]) {
    return strncmp(text, word, N - 1) == 0;
}

bool is_space(char c) {
    return c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

// As atoi reads [p, stop): leading white space, a sign, digits, the rest ignored; a magnitude
// beyond int saturates instead of overflowing.
int to_int(const char *p, const char *stop) {
    while (p < stop && is_space(*p)) ++p;
    bool negative = p < stop && *p == '-';
    if (p < stop && (*p == '-' || *p == '+')) ++p;
    long long magnitude = 0;
    for (; p < stop && *p >= '0' && *p <= '9'; ++p) {
        magnitude = magnitude * 10 + (*p - '0');
        if (magnitude > INT_MAX) magnitude = INT_MAX + 1LL;
    }
    if (negative) return static_cast<int>(-magnitude);
    return magnitude > INT_MAX ? INT_MAX : static_cast<int>(magnitude);
}

// Reads the field at p (up to its blank, which is consumed) into *value, which must be at least
// least and fit in what remains after the blank. Returns the position after the blank.
const char *read_length(const char *p, const char *end, int least, int *value) {
    size_t remaining = static_cast<size_t>(end - p);
    size_t window = remaining < kMaxFieldLength + 1 ? remaining : kMaxFieldLength + 1;
    const char *blank = static_cast<const char *>(memchr(p, ' ', window));
    if (!blank) return nullptr;
    *value = to_int(p, blank);
    const char *after = blank + 1;
    if (*value < least || *value > end - after) return nullptr;
    return after;
}

// Reads a scalar's length field; the payload follows and must be closed by "}" right after it.
const char *read_scalar(const char *p, const char *end, int least, int *length) {
    const char *payload = read_length(p, end, least, length);
    return payload && payload[*length] == '}' ? payload : nullptr;
}

// Copies the characters between the first and last of a payload (the quotes, unchecked).
char *copy_unquoted(const char *payload, int length) {
    size_t n = static_cast<size_t>(length) - 2;
    auto *copy = static_cast<char *>(malloc(n + 1));
    if (!copy) return nullptr;
    memcpy(copy, payload + 1, n);
    copy[n] = '\0';
    return copy;
}

const char *parse_str(const char *p, const char *end, obs_any_value *node) {
    int length;
    const char *payload = read_scalar(p, end, 2, &length);
    if (!payload) return nullptr;
    char *str = copy_unquoted(payload, length);
    if (!str) return nullptr;
    node->type = OBS_VALUE_STR;
    node->val.ptr = str;
    node->vlen = static_cast<uint32_t>(length - 1);
    return payload + length;
}

const char *parse_byte(const char *p, const char *end, obs_any_value *node) {
    int length;
    const char *payload = read_scalar(p, end, 2, &length);
    if (!payload || length % 2 != 0) return nullptr;
    void *bytes = calloc(1, static_cast<size_t>(length) / 2);
    if (!bytes) return nullptr;
    obs_hex_to_byte(bytes, payload, static_cast<uint32_t>(length));
    node->type = OBS_VALUE_BYTES;
    node->val.ptr = bytes;
    node->vlen = static_cast<uint32_t>(length) / 2;
    return payload + length;
}

const char *parse_bool(const char *p, const char *end, obs_any_value *node) {
    int length;
    const char *payload = read_scalar(p, end, 4, &length);
    if (!payload) return nullptr;
    if (memcmp(payload, "true", 4) == 0) {
        node->val.b = 1;
    } else if (length >= 5 && memcmp(payload, "false", 5) == 0) {
        node->val.b = 0;
    } else {
        return nullptr;
    }
    node->type = OBS_VALUE_BOOL;
    node->vlen = 1;
    return payload + length;
}

// The one frame that holds the work buffer, kept out of line so that the recursive frames stay
// small. Converts as atoll and atof do; a payload too long for the buffer is refused.
__attribute__((noinline)) bool convert_number(const char *payload, int length, uint8_t code,
                                              obs_any_value *node) {
    char work[kMaxFieldLength + 1];
    if (static_cast<size_t>(length) > kMaxFieldLength) return false;
    memcpy(work, payload, static_cast<size_t>(length));
    work[length] = '\0';
    if (code == OBS_VALUE_INT) {
        node->val.i = strtoll(work, nullptr, 10);
    } else {
        node->val.d = strtod(work, nullptr);
    }
    node->type = code;
    node->vlen = 8;
    return true;
}

const char *parse_number(const char *p, const char *end, uint8_t code, obs_any_value *node) {
    int length;
    const char *payload = read_scalar(p, end, 1, &length);
    if (!payload || !convert_number(payload, length, code, node)) return nullptr;
    return payload + length;
}

// Total length and count of an array or kvlist, up to its "[".
struct container_header {
    const char *payload;
    int total;
    int count;
};

const char *read_container_header(const char *p, const char *end, container_header *header) {
    header->payload = read_length(p, end, 4, &header->total);
    if (!header->payload) return nullptr;
    const char *open = read_length(header->payload, end, 1, &header->count);
    return open && *open == '[' ? open : nullptr;
}

// At the "]" of a container: every item read, the payload exactly total long, the node closed.
bool container_closes(const container_header &header, const char *close, int items) {
    return items == header.count && close - header.payload + 1 == header.total && close[1] == '}';
}

const char *parse_node(const char *p, const char *end, int depth, obs_any_value *node);
const char *parse_any(const char *p, const char *end, int depth, obs_any_value **out);

// The element block grows with the elements actually read, never beyond the count the text
// claims, so a hostile count cannot make the parser allocate ahead of the text.
struct element_block {
    obs_any_value *nodes;
    int used;
    int capacity;
};

obs_any_value *next_element(element_block *block, int count) {
    if (block->used == count) return nullptr;
    if (block->used == block->capacity) {
        int wanted = block->capacity <= count / 2 ? block->capacity * 2 : count;
        if (wanted < 4) wanted = count < 4 ? count : 4;
        void *grown = realloc(block->nodes, static_cast<size_t>(wanted) * sizeof(obs_any_value));
        if (!grown) return nullptr;
        block->nodes = static_cast<obs_any_value *>(grown);
        block->capacity = wanted;
    }
    obs_any_value *element = &block->nodes[block->used];
    memset(element, 0, sizeof *element);
    return element;
}

void release_elements(element_block *block) {
    for (int i = 0; i < block->used; ++i) obs_any_value_free_generic(&block->nodes[i], 1);
    free(block->nodes);
}

// Elements from after "[" up to the "]", whose position is returned.
const char *parse_elements(const char *p, const char *end, int depth, int count,
                           element_block *block) {
    for (; p < end; ++p) {
        if (*p == ',') continue;
        if (*p == ']') return p;
        if (*p != '{') return nullptr;
        obs_any_value *element = next_element(block, count);
        if (!element) return nullptr;
        p = parse_node(p, end, depth, element);
        if (!p) return nullptr;
        ++block->used;
    }
    return nullptr;
}

// p follows "array "; depth counts the containers around this one.
const char *parse_array(const char *p, const char *end, int depth, obs_any_value *node) {
    if (depth >= kMaxDepth) return nullptr;
    container_header header;
    const char *open = read_container_header(p, end, &header);
    if (!open) return nullptr;
    element_block block = {nullptr, 0, 0};
    const char *close = parse_elements(open + 1, end, depth + 1, header.count, &block);
    if (!close || !container_closes(header, close, block.used)) {
        release_elements(&block);
        return nullptr;
    }
    node->type = OBS_VALUE_ARRAY;
    node->val.ptr = block.nodes;
    node->vlen = static_cast<uint32_t>(header.count);
    return close + 1;
}

// Takes over chain, releasing it when the pair cannot be made.
obs_key_value *make_pair(const char *key, int key_length, obs_any_value *chain) {
    auto *pair = static_cast<obs_key_value *>(calloc(1, sizeof(obs_key_value)));
    char *copy = pair ? copy_unquoted(key, key_length) : nullptr;
    if (!copy) {
        free(pair);
        obs_any_value_free(chain);
        return nullptr;
    }
    pair->key = copy;
    pair->val = chain;
    return pair;
}

// A pair entry at its "{": "{str <n> "<key>" <m> <value text>}", the value text a node or a
// list. The value length is only checked against what remains; the value text ends where its
// own closing character is.
const char *parse_pair(const char *p, const char *end, int depth, obs_key_value **pair) {
    if (!starts_with(p + 1, "str ")) return nullptr;
    int key_length;
    const char *key = read_length(p + 5, end, 3, &key_length);
    if (!key || key + key_length == end) return nullptr;
    int value_length;
    const char *value = read_length(key + key_length + 1, end, 2, &value_length);
    if (!value) return nullptr;
    obs_any_value *chain = nullptr;
    const char *last = parse_any(value, end, depth, &chain);
    if (!last) return nullptr;
    if (last[1] != '}') {
        obs_any_value_free(chain);
        return nullptr;
    }
    *pair = make_pair(key, key_length, chain);
    return *pair ? last + 1 : nullptr;
}

struct pair_list {
    obs_key_value *head;
    obs_key_value *tail;
    int used;
};

// Pair entries from after "[" up to the "]", whose position is returned.
const char *parse_pairs(const char *p, const char *end, int depth, pair_list *pairs) {
    for (; p < end; ++p) {
        if (*p == ',') continue;
        if (*p == ']') return p;
        if (*p != '{') return nullptr;
        obs_key_value *pair = nullptr;
        p = parse_pair(p, end, depth, &pair);
        if (!p) return nullptr;
        if (pairs->tail) {
            pairs->tail->next = pair;
        } else {
            pairs->head = pair;
        }
        pairs->tail = pair;
        ++pairs->used;
    }
    return nullptr;
}

// p follows "kvlist "; depth counts the containers around this one.
const char *parse_kvlist(const char *p, const char *end, int depth, obs_any_value *node) {
    if (depth >= kMaxDepth) return nullptr;
    container_header header;
    const char *open = read_container_header(p, end, &header);
    if (!open) return nullptr;
    pair_list pairs = {nullptr, nullptr, 0};
    const char *close = parse_pairs(open + 1, end, depth + 1, &pairs);
    if (!close || !container_closes(header, close, pairs.used)) {
        obs_key_value_free(pairs.head);
        return nullptr;
    }
    node->type = OBS_VALUE_KVLIST;
    node->val.ptr = pairs.head;
    node->vlen = static_cast<uint32_t>(header.count);
    return close + 1;
}

// A node at its "{". "{}" leaves the node untyped. The first letter picks the one keyword the
// node can have (two for "b"), so each node costs at most two comparisons.
const char *parse_node(const char *p, const char *end, int depth, obs_any_value *node) {
    const char *name = p + 1;
    switch (*name) {
        case 's':
            return starts_with(name, "str ") ? parse_str(name + 4, end, node) : nullptr;
        case 'b':
            if (starts_with(name, "byte ")) return parse_byte(name + 5, end, node);
            return starts_with(name, "bool ") ? parse_bool(name + 5, end, node) : nullptr;
        case 'i':
            return starts_with(name, "int ") ? parse_number(name + 4, end, OBS_VALUE_INT, node)
                                             : nullptr;
        case 'd':
            return starts_with(name, "double ")
                       ? parse_number(name + 7, end, OBS_VALUE_DOUBLE, node)
                       : nullptr;
        case 'a':
            return starts_with(name, "array ") ? parse_array(name + 6, end, depth, node) : nullptr;
        case 'k':
            return starts_with(name, "kvlist ") ? parse_kvlist(name + 7, end, depth, node)
                                                : nullptr;
        case '}':
            return name;
        default:
            return nullptr;
    }
}

// A list at its "["; the nodes read are appended to the tail of *out.
const char *parse_list(const char *p, const char *end, int depth, obs_any_value **out) {
    if (depth >= kMaxDepth) return nullptr;
    obs_any_value *head = nullptr;
    obs_any_value **tail = &head;
    for (++p; p < end; ++p) {
        if (*p == ',') continue;
        if (*p == ']') {
            while (*out) out = &(*out)->next;
            *out = head;
            return p;
        }
        if (*p != '{') break;
        *tail = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
        if (!*tail) break;
        p = parse_node(p, end, depth + 1, *tail);
        if (!p) break;
        tail = &(*tail)->next;
    }
    obs_any_value_free(head);
    return nullptr;
}

// A list or a single node; *out receives the chain only on success.
const char *parse_any(const char *p, const char *end, int depth, obs_any_value **out) {
    if (*p == '[') return parse_list(p, end, depth, out);
    if (*p != '{') return nullptr;
    auto *node = static_cast<obs_any_value *>(calloc(1, sizeof(obs_any_value)));
    if (!node) return nullptr;
    const char *last = parse_node(p, end, depth, node);
    if (!last) {
        free(node);
        return nullptr;
    }
    *out = node;
    return last;
}

const char *end_of(const char *text) {
    return text + strlen(text);
}

}  // namespace

extern "C" {

const char *obs_any_value_decode(const char *text, uint32_t, obs_any_value **out) {
    if (!text || !out) return nullptr;
    obs_any_value *chain = nullptr;
    const char *last = parse_any(text, end_of(text), 0, &chain);
    if (last) *out = chain;
    return last;
}

const char *obs_any_value_parser_list(const char *text, uint32_t, obs_any_value **out) {
    if (!text || !out || *text != '[') return nullptr;
    return parse_list(text, end_of(text), 0, out);
}

const char *obs_any_value_parser_value(const char *text, uint32_t, obs_any_value *node) {
    if (!text || !node || *text != '{') return nullptr;
    return parse_node(text, end_of(text), 0, node);
}

const char *obs_any_value_parser_array(const char *text, uint32_t, obs_any_value *node) {
    if (!text || !node || !starts_with(text, "{array ")) return nullptr;
    return parse_array(text + 7, end_of(text), 0, node);
}

const char *obs_any_value_parser_kvlist(const char *text, uint32_t, obs_any_value *node) {
    if (!text || !node || !starts_with(text, "{kvlist ")) return nullptr;
    return parse_kvlist(text + 8, end_of(text), 0, node);
}

}  // extern "C"
