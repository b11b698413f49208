/* Typed values and key-value lists, the one data model for attributes, policy messages and
 * sampling policies, and their length-prefixed text format.
 *
 * Lists are singly linked through next and grow by appending at the tail; an empty list is a
 * null head, and add operations take the address of the head. A pair's key is always a private
 * copy; a value's payload is a private copy or borrowed, as each operation says. */
#ifndef OBSERVABILITY_VALUE_H
#define OBSERVABILITY_VALUE_H

#include "observability/common.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct obs_any_value obs_any_value;
typedef struct obs_key_value obs_key_value;

/* One value node. type: low 4 bits the OBS_VALUE_* code (8 to 15 behave like 0), bit 0x10
 * OBS_VALUE_REF (the node does not own what val points to). vlen: string length + 1, 1 for
 * bool, 8 for int and double, the element count of an array, the pair count of a kvlist (taken
 * when the value was made), the byte count of bytes. The elements of an array are one
 * contiguous block of vlen nodes whose own next is null. */
struct obs_any_value {
    uint8_t type;
    union {
        void *ptr;
        uint8_t b;
        int64_t i;
        double d;
    } val;
    uint32_t vlen;
    obs_any_value *next;
};

/* One key-value pair; key and val (a node or a chain) are owned by the pair. */
struct obs_key_value {
    char *key;
    obs_any_value *val;
    obs_key_value *next;
};

/* Building value lists. Each appends one node at the tail of *head; nothing happens (and
 * nothing is appended) when head or the payload is null or memory runs out, and a payload
 * offered for taking over then stays the caller's. With borrow non-zero the node refers to the
 * caller's payload (OBS_VALUE_REF), which must outlive it. */
OBS_EXPORT void obs_any_value_add_str(obs_any_value **head, const char *str, int borrow);
/* n = 0 without borrow appends a node with a null val. */
OBS_EXPORT void obs_any_value_add_byte(obs_any_value **head, const void *bytes, uint32_t n,
                                       int borrow);
OBS_EXPORT void obs_any_value_add_bool(obs_any_value **head, bool value);
OBS_EXPORT void obs_any_value_add_int(obs_any_value **head, int64_t value);
OBS_EXPORT void obs_any_value_add_double(obs_any_value **head, double value);
/* The element block is never copied: without borrow the node takes it over (it must come from
 * malloc and is released as a whole). */
OBS_EXPORT void obs_any_value_add_array(obs_any_value **head, obs_any_value *elements,
                                        uint32_t count, int borrow);
/* The pair list is never copied: without borrow the node takes it over. vlen is the number of
 * pairs now. */
OBS_EXPORT void obs_any_value_add_kvlist(obs_any_value **head, obs_key_value *pairs, int borrow);
/* Appends node, and any chain behind it, unchanged at the tail; the list takes ownership.
 * (Clearing the node's type and cutting its chain, as a plain set with type 0 would, leaves a
 * node that says nothing of what it holds and leaks its payload, so the node is kept whole.) */
OBS_EXPORT void obs_any_value_add_list(obs_any_value **head, obs_any_value *node);
/* The common worker: a zero-filled node filled by obs_any_value_set_generic. With type 0, src
 * is an existing node appended as obs_any_value_add_list does. */
OBS_EXPORT void obs_any_value_add_generic(obs_any_value **head, uint8_t type, const void *src,
                                          uint32_t size);
/* Fill node: next null, vlen size, type the given byte; then by code: 1 copies the string (with
 * OBS_VALUE_REF stores the pointer), 2 copies one byte from src, 3 and 4 eight bytes, 5 and 6
 * store the pointer, 7 copies size bytes into a new block (OBS_VALUE_REF: stores the pointer;
 * size 0: stores nothing), other codes store nothing. Nothing happens for a null node or src.
 * When a copy cannot be allocated val is left null. */
OBS_EXPORT void obs_any_value_set_generic(obs_any_value *node, uint8_t type, const void *src,
                                          uint32_t size);

/* Building key-value lists: append a pair with a private copy of key whose value is made as by
 * the obs_any_value_add_* of the same name. Nothing is appended when head, key or the payload
 * is null or memory runs out. */
OBS_EXPORT void obs_key_value_add_str(obs_key_value **head, const char *key, const char *str,
                                      int borrow);
OBS_EXPORT void obs_key_value_add_byte(obs_key_value **head, const char *key, const void *bytes,
                                       uint32_t n, uint8_t borrow);
OBS_EXPORT void obs_key_value_add_bool(obs_key_value **head, const char *key, bool value);
OBS_EXPORT void obs_key_value_add_int(obs_key_value **head, const char *key, int64_t value);
OBS_EXPORT void obs_key_value_add_double(obs_key_value **head, const char *key, double value);
OBS_EXPORT void obs_key_value_add_array(obs_key_value **head, const char *key,
                                        obs_any_value *elements, uint32_t count, uint8_t borrow);
OBS_EXPORT void obs_key_value_add_kvlist(obs_key_value **head, const char *key,
                                         obs_key_value *pairs, int borrow);
/* The pair's value is the given node or chain itself, unchanged; the pair takes ownership. */
OBS_EXPORT void obs_key_value_add_list(obs_key_value **head, const char *key, obs_any_value *value);
/* The common worker: type non-zero makes a node as obs_any_value_add_generic does; type 0
 * attaches src (an obs_any_value chain) itself. */
OBS_EXPORT void obs_key_value_add_generic(obs_key_value **head, const char *key, uint8_t type,
                                          const void *src, uint32_t size);

/* Lookups and accessors; each gives 0, null or 0.0 for a null node and none checks the node's
 * type: reading under another type returns whatever the union holds. */
/* First pair whose key equals key, or null. */
OBS_EXPORT obs_key_value *obs_key_value_find(obs_key_value *list, const char *key);
OBS_EXPORT const char *obs_key_value_get_key(const obs_key_value *pair);
OBS_EXPORT obs_any_value *obs_key_value_get_val(const obs_key_value *pair);
OBS_EXPORT obs_key_value *obs_key_value_get_next(const obs_key_value *pair);
/* The whole type byte, OBS_VALUE_REF included. */
OBS_EXPORT uint8_t obs_any_value_get_type(const obs_any_value *node);
OBS_EXPORT uint32_t obs_any_value_get_vlen(const obs_any_value *node);
OBS_EXPORT obs_any_value *obs_any_value_get_next(const obs_any_value *node);
OBS_EXPORT const char *obs_any_value_get_str(const obs_any_value *node);
OBS_EXPORT const void *obs_any_value_get_byte(const obs_any_value *node);
OBS_EXPORT obs_any_value *obs_any_value_get_array(const obs_any_value *node);
OBS_EXPORT obs_key_value *obs_any_value_get_kvlist(const obs_any_value *node);
OBS_EXPORT unsigned int obs_any_value_get_bool(const obs_any_value *node);
OBS_EXPORT int64_t obs_any_value_get_int(const obs_any_value *node);
OBS_EXPORT double obs_any_value_get_double(const obs_any_value *node);
/* By the low 4 bits of type (not the node's own): codes 1, 5, 6, 7 give the pointer in val,
 * codes 2, 3, 4 the address of val inside the node, others null. */
OBS_EXPORT void *obs_any_value_get_val(obs_any_value *node, uint8_t type);
/* "na", "str", "bool", "int", "double", "array", "kvlist" or "byte" for the low 4 bits. */
OBS_EXPORT const char *obs_any_value_type_name(uint8_t type);

/* Release the whole chain from node: each node's owned payload, then the node. */
OBS_EXPORT void obs_any_value_free(obs_any_value *node);
/* The worker: as obs_any_value_free, but with keep_nodes non-zero only the payloads are
 * released and the nodes themselves are left (used for the elements of an array block). */
OBS_EXPORT void obs_any_value_free_generic(obs_any_value *node, int keep_nodes);
/* For each pair: the key, the value chain, the pair. */
OBS_EXPORT void obs_key_value_free(obs_key_value *list);
/* Shallow copy of the chain (only its first node when only_first is non-zero): every copy has
 * OBS_VALUE_REF and shares its payload with the source, so it must not outlive the source. */
OBS_EXPORT obs_any_value *obs_any_value_clone(const obs_any_value *node, int only_first);
/* New pairs with copied keys whose values are obs_any_value_clone of the source values. */
OBS_EXPORT obs_key_value *obs_key_value_clone(const obs_key_value *list, int only_first);

/* 0-9, a-f and A-F give 0 to 15; any other character gives 0. */
OBS_EXPORT uint8_t obs_hex_char_to_value(char c);
/* Convert the n hexadecimal characters at src into n/2 bytes at dst (a trailing odd character
 * is ignored). */
OBS_EXPORT void obs_hex_to_byte(void *dst, const char *src, uint32_t n);
/* Short human-readable form of one node ("\"abc\"", "true", "5", "1.500000", "2(kvlist)", ...)
 * into buf (at most size bytes with the terminator). Returns buf, or a constant empty string
 * when node or buf is null or size is 0. */
OBS_EXPORT const char *obs_any_value_print(const obs_any_value *node, char *buf, uint32_t size);

/* Text format. Encode a chain (one node as "{type len payload}", two or more as "[n1,n2]");
 * the result's obs_sdslen is the text's strlen + 1 (a counted NUL ends it). Null for a null
 * head or when memory runs out. Doubles are written with "%f"; one whose "%f" text would be
 * longer than 31 characters (magnitude of about 1e24 and more) is written in the shortest
 * exponent form that reads back to the same value, so it survives a round trip. */
OBS_EXPORT obs_sds obs_any_value_encode(const obs_any_value *head);
/* The text of a kvlist node holding list, with the pairs counted now. */
OBS_EXPORT obs_sds obs_key_value_encode(const obs_key_value *list);

/* Parse a text (NUL-terminated; len is not used, the terminator bounds it) into a new chain
 * stored in *out. Returns a pointer to the value's last character ("}" or "]"); characters after
 * it are not looked at. Returns null on any failure, with *out untouched and everything built
 * released. Runs in time linear in the text. Refused: nesting deeper than 64 arrays, kvlists
 * and lists; length, count, int and double fields longer than 127 characters. The quotes around
 * strings and keys and the blank after a key are not inspected. */
OBS_EXPORT const char *obs_any_value_decode(const char *text, uint32_t len, obs_any_value **out);
/* The parser's steps, each starting at its opening character ("[" or "{"); pos is not used.
 * Each fills its output only on success. The list step appends the nodes read to *out. */
OBS_EXPORT const char *obs_any_value_parser_list(const char *text, uint32_t pos,
                                                 obs_any_value **out);
/* Fill a zero-filled node from the node text at text. */
OBS_EXPORT const char *obs_any_value_parser_value(const char *text, uint32_t pos,
                                                  obs_any_value *node);
/* Fill a zero-filled node from the array node text at text (code, count, element block). */
OBS_EXPORT const char *obs_any_value_parser_array(const char *text, uint32_t pos,
                                                  obs_any_value *node);
/* Fill a zero-filled node from the kvlist node text at text (code, count, pair list). */
OBS_EXPORT const char *obs_any_value_parser_kvlist(const char *text, uint32_t pos,
                                                   obs_any_value *node);

#ifdef __cplusplus
}
#endif

#endif
