// Data-model helpers: paths, scheme nodes, and lists of the daemon turned into trees.
#pragma once

#include <jansson.h>

/// Node type codes. The codes of strings, integers, reals and booleans as value types are Jansson's own (json_typeof).
enum ve_tr_type {
    ve_tr_object = 0, ///< an object, or nothing known
    ve_tr_method = 1,
    ve_tr_boolean = 4,
    ve_tr_path = 24,
    ve_tr_switch = 26,
    ve_tr_string = 32,
    ve_tr_int,
    ve_tr_unsigned_int,
    ve_tr_long,
    ve_tr_unsigned_long,
    ve_tr_decimal,
    ve_tr_date_time,
    ve_tr_base64,
    ve_tr_hex_binary,
    ve_tr_other ///< a parameter of a type nobody knows
};

/// A node's "#attr"."type" as a code; ve_tr_object for a node without one (a "#info" that was not converted counts
/// too).
int ve_tr_dm_node_type_get(const json_t *node);
bool ve_tr_dm_node_is_multi(const json_t *node);
bool ve_tr_dm_node_is_ordered(const json_t *node);
/// Borrowed: the node's default value, or null; the node's attribute object, or null.
json_t *ve_tr_dm_node_default_get(const json_t *node);
json_t *ve_tr_dm_node_attr_get(const json_t *node);

/// Digits only, 1 to 4294967295.
bool ve_tr_str_is_instance(const char *text);
/// Full: not empty and not ending in "."; partial: ending in ".".
bool ve_tr_path_is_full(const char *path);
bool ve_tr_path_is_partial(const char *path);

/// A new tree of the entries of `list` (an array of {"Name", ...}; null is empty) whose names lie below `base` (null or
/// "." : full names). Each entry stands as "#info" on its node; the entry of the base itself on the root of the result;
/// a member "Template" becomes the child "#template". Entries that do not fit are passed over. Never null.
json_t *ve_tr_names_to_config(const json_t *list, const char *base);
/// The same for {"Name", "Value"}: the value itself stands at the place of its name. Never null; new reference.
json_t *ve_tr_namevalues_to_config(const json_t *list, const char *base);
/// The node that `path` (dots between names, a final one allowed) leads to below `tree`, borrowed, or null.
json_t *ve_tr_node_find_path_config(const json_t *tree, const char *path);
/// The object at `path` in the scheme cache `dm`, borrowed; found only when its children have been fetched.
json_t *ve_conf_find_branch(const json_t *dm, const char *path, int flags);
