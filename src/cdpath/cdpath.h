// A place in the data model, and the cache of the model's scheme that it stands in. Main thread only.
#pragma once

#include <cstdint>

#include <jansson.h>

inline constexpr unsigned cdpath_text_max = 256;

/// A place: the path text, the cache node it leads to and the chain of nodes back to the root.
struct cdpath {
    json_t *node;    ///< owned: one reference, which keeps it alive when the cache is replaced
    json_t *parents; ///< owned: array, element 0 the direct parent, the last one the root
    uint8_t is_multi;
    uint8_t is_ordered;
    uint8_t allocated; ///< the record itself is on the heap and cdpath_free frees it
    char path[cdpath_text_max + 1];
};

/// The scheme cache: owned here, replaced by reload_dm. Keys "#attr", "#fetched", "#template" and "#shared" (nodes that
/// instances of a table have in common) are the client's own.
extern json_t *dm;
/// The shell's place and the one before it. Usable before their first cdpath_new (a zeroed record is an unloaded root).
extern cdpath cwd;
extern cdpath old_cwd;

/// Initialise `storage`, or a new record when it is null. Return the record.
cdpath *cdpath_new(cdpath *storage);
cdpath *cdpath_copy(cdpath *storage, const cdpath *source);
void cdpath_free(cdpath *record);
/// Back to the root.
void cdpath_clear(cdpath *record);
/// One level down to `child` (borrowed) under `name`. Returns 0, or -1 when the path would become too long.
int cdpath_push(cdpath *record, json_t *child, const char *name, bool multi, bool ordered);
/// One level up; at the root it stays. Returns 0.
int cdpath_pop(cdpath *record);
/// Follows the typed path `text`. Returns 0, -1 when it cannot be followed (what led up to there stays applied), -2
/// without a text. May fetch from the daemon. `quiet` keeps the component "-" from printing where it leads.
int cdpath_parse(cdpath *record, const char *text, bool quiet = false);
/// True when the record stands at the root of the model (by identity or by its empty path).
bool cdpath_is_root(const cdpath *record);
/// Turns every "#info" below `value` into "#attr".
void cdpath_info_to_attr(json_t *value);

enum cdpath_content_flags : unsigned {
    CDPATH_OBJECTS_ONLY = 1,
    CDPATH_OBJECT_DOT = 2,
    CDPATH_ABSOLUTE = 4,
    CDPATH_FILTER_PREFIX = 8
};

/// Fills the record's node with the daemon's attributes of it and its direct children. Returns 0. A wait point.
int cdpath_fetch(cdpath *record);
/// The names below the record as a new array of strings; of a multi-instance object as the daemon lists them now. Null
/// when there is nothing to list. `text` is a filter (CDPATH_FILTER_PREFIX) or a prefix for each name. A wait point.
json_t *cdpath_content(cdpath *record, const char *text, unsigned flags);
/// The same from the cache, fetching only what was never fetched. Never null.
json_t *cdpath_content_fast(cdpath *record, const char *text, unsigned flags);
/// A new tree of the input arguments of the method that the record stands on, or null.
json_t *cdpath_get_input(cdpath *record);

/// A copy of a place for one look around. Use as cdpath_local.
class cdpath_local : public cdpath
{
public:
    explicit cdpath_local(const cdpath &source) { cdpath_copy(this, &source); }
    cdpath_local(const cdpath_local &) = delete;
    cdpath_local &operator=(const cdpath_local &) = delete;
    ~cdpath_local() { cdpath_free(this); }
};
