/*
 * Records, return codes and value sets shared by the mapping module and the
 * framework that loads it.  Everything here is plain C so that the module's
 * ABI stays C whatever the two sides are written in.
 *
 * Field order matters: the framework owns these records and the module reads
 * them by position.  Fields marked "framework only" are the framework's own
 * book-keeping; the module never touches them.
 */
#ifndef OCTUNNEL_YFW_TYPES_H
#define OCTUNNEL_YFW_TYPES_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Return code of every mapping function; 0 is success. */
typedef uint32_t verrno;

#define YFW_OK 0x00000000u
#define YFW_ERR_NO_SUBTREES 0xaaf29e00u
#define YFW_ERR_INVALID_ARG 0xaaf2a000u
#define YFW_ERR_UNSUPPORTED_TAG 0xaaf2ee00u
#define YFW_ERR_LIST_KEY 0xaaf2f000u
#define YFW_ERR_KEY_DELETE 0xaaf2f200u
#define YFW_ERR_NOT_SUPPORTED 0xaaf2f400u
/* Not an error: a hook's way of saying "this node is not mine". */
#define YFW_SKIP_NODE 0xaaf2f600u
#define YFW_ERR_AUGMENT_NOT_SUPPORTED 0xaaf2f800u
/* The module's own answer to an edit of an IPv4 prefix length that has no
 * netmask (above 32, negative, or no value): a plain number, outside the
 * framework's range of codes, which the framework passes on as it is. */
#define YFW_INVALID_PREFIX_LENGTH 16u

/* Request kinds (yfw_map_request.kind). */
#define YFW_MAP_REQ_GET_CONFIG 0u
#define YFW_MAP_REQ_GET 10u
/* Bit `kind` set for the writing kinds that must name every list instance by
 * exactly one valued key: 1, 8 and 15. */
#define YFW_MAP_KEYED_KINDS 0x8102u

/* Node operations (vidl_yfw_datatree.op). */
#define YFW_OP_MERGE 0u
#define YFW_OP_REPLACE 1u
#define YFW_OP_CREATE 2u
#define YFW_OP_DELETE 3u
#define YFW_OP_REMOVE 4u

/* Node kinds (vidl_yfw_datatree.node_kind). */
#define YFW_NODE_LEAF 1u
#define YFW_NODE_LEAF_LIST 2u
#define YFW_NODE_CONTAINER 3u
#define YFW_NODE_LIST 4u
#define YFW_NODE_MATCH_LEAF 6u
#define YFW_NODE_KIND_PRESENT 0x04u /* bit of node_kind_present */

/* Presence bits (vidl_yfw_datatree.present). */
#define YFW_PRESENT_VALUE 0x002u
#define YFW_PRESENT_OP 0x010u
#define YFW_PRESENT_SUBTREES 0x040u
#define YFW_PRESENT_IS_KEY 0x200u
#define YFW_PRESENT_ERROR_KIND 0x800u

/* error_kind of a node in a native result that stands for an xpath error. */
#define YFW_ERROR_KIND_XPATH 5u

/* Walk flags (yfw_map_state.walk_flags). */
#define YFW_WALK_REPLACE_CLEAR 0x040u
#define YFW_WALK_REPLACE_WRITE 0x080u
#define YFW_WALK_XPATH_ERROR 0x100u

/* Filter bits (yfw_map_state.filter_bits). */
#define YFW_FILTER_WALK_ALL 0x00001u
#define YFW_FILTER_SELECT_SEEN 0x00002u
#define YFW_FILTER_MATCH_SEEN 0x00004u
#define YFW_FILTER_MATCH_EVER 0x10000u
/* The walkers' mask for "clear the low bits"; it keeps MATCH_EVER. */
#define YFW_FILTER_LOW_CLEAR_MASK 0x11111110u

/* Level of a node in the framework's node hierarchy. */
#define YFW_LEVEL_CONTAINER 1
#define YFW_LEVEL_LIST 2

/* One node of a data tree.  Children are one contiguous array. */
struct vidl_yfw_datatree {
    char *tag;
    char *value; /* valid while present has YFW_PRESENT_VALUE */
    char *ns;
    uint32_t op;      /* valid while present has YFW_PRESENT_OP */
    uint32_t fw_line; /* framework only: source line of the node in its document */
    struct vidl_yfw_datatree *subtrees;
    uint32_t subtree_count;
    uint32_t node_kind;
    uint8_t node_kind_present;
    uint8_t is_key;
    uint32_t error_kind; /* valid while present has YFW_PRESENT_ERROR_KIND */
    uint32_t present;
    /* framework only */
    uint32_t fw_capacity;                /* allocated length of subtrees */
    struct vidl_yfw_datatree *fw_parent; /* the node whose subtrees hold this one */
};
typedef struct vidl_yfw_datatree vidl_yfw_datatree;

/* The request header.  Only `kind` and the marks below are read by the
 * module; the marks are read by config_or_state_allowed alone. */
struct yfw_map_request {
    uint32_t kind;
    uint32_t req_marks_a;
    uint32_t req_marks_b;
    uint32_t req_marks_c;
    uint32_t req_marks_d;
    uint32_t req_marks_e;
    uint32_t req_marks_f;
    uint32_t read_view;
    uint32_t req_marks_g;
    uint32_t req_marks_h;
    uint32_t req_marks_i;
};
typedef struct yfw_map_request yfw_map_request;

/* Per-request state. */
struct yfw_map_state {
    yfw_map_request *request;
    char *error_tag; /* heap string from yfw_strdup, owned here */
    uint32_t walk_flags;
    uint8_t output_count;
    uint32_t delete_walk;
    uint32_t schema_walk;
    uint32_t filter_bits;
    char *error_text; /* heap string from yfw_strdup, owned here */
    uint32_t replace_pass;
};
typedef struct yfw_map_state yfw_map_state;

/* The debug levels that yfw_debug_should_log consults.  The module only ever
 * passes the block's address. */
struct yfw_debug_block {
    uint32_t levels; /* bit n set: level n is logged */
};

/* The framework's per-request context. */
struct yfw_map_ctx_s {
    yfw_map_state *map_state;
    struct yfw_debug_block dbg;
    void *err_log;
    void *trc_log;
    void *ltrace_handle;
    uint32_t ltrace_on;
    uint32_t last_op;
    /* framework only */
    void *fw_private;
};
typedef struct yfw_map_ctx_s *yfw_map_ctx;

/* The shape of every mapping function, and of a container's hook. */
typedef verrno (*map_function)(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                               struct vidl_yfw_datatree *out);
typedef verrno (*container_hook)(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                 unsigned int subtree_count, struct vidl_yfw_datatree *out);

/* Handler of an instance-stack record: called once per instance, with 0. */
typedef verrno (*itree_handler)(yfw_map_ctx ctx, const struct vidl_yfw_datatree *in,
                                struct vidl_yfw_datatree *out, unsigned int flags);

/* Top record of the framework's instance-tree stack. */
struct itree_record {
    struct vidl_yfw_datatree *nodes;
    uint32_t count;
    itree_handler handler;
};
typedef struct itree_record itree_record;

/* Registration record, allocated by the framework and filled by the module. */
#define YFW_REG_TEXT_SIZE 81
struct yfw_map_reg_mod_t {
    char reg_name[YFW_REG_TEXT_SIZE];
    char native_ns[YFW_REG_TEXT_SIZE];
    char oc_ns[YFW_REG_TEXT_SIZE];
    char native_root_tag[YFW_REG_TEXT_SIZE];
    char oc_root_tag[YFW_REG_TEXT_SIZE];
    map_function oc_to_native_root;
    void *reg_slot_a; /* not written by the module */
    void *reg_slot_b; /* not written by the module */
    map_function native_to_oc_root;
    uint64_t reg_reserved;
};
typedef struct yfw_map_reg_mod_t yfw_map_reg_mod_t;

#ifdef __cplusplus
}
#endif

#endif
