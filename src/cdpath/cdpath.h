// Places in the data model, found by their paths in the cache of the model's scheme. Main thread only.
#pragma once

#include <memory>

#include <jansson.h>

#include "cdpath/dm_node.h"
#include "cdpath/dm_path.h"

/// A place: a path, and the cache's node there. A value: a copy goes its own way.
struct cdpath {
    dm_path path;
    std::shared_ptr<dm_node> node; ///< null when no scheme is loaded, or when nothing is known of the path
};

/// The root of the scheme cache, null until a scheme is loaded. Replaced by reload_dm, ended by the shell.
extern std::shared_ptr<dm_node> dm;
/// Where the shell stands and where it stood before; nodes are found anew for each look. Written by cd and reload_dm.
extern dm_path cwd;
extern dm_path old_cwd;

/// The shell's place, after what the daemon's notices of instances say went into the cache. Asks nothing.
cdpath cdpath_here();
/// Finds the node of the place's path when it has none, asking for what is not known. False when there is none.
bool cdpath_settle(cdpath *place);
/// Back to the root.
void cdpath_clear(cdpath *place);
/// Follows the typed path `text`. Returns 0, -1 when it cannot be followed (what led up to there stays applied), -2
/// without a text. May fetch from the daemon. `quiet` keeps the component "-" from printing where it leads.
int cdpath_parse(cdpath *place, const char *text, bool quiet = false);

enum cdpath_content_flags : unsigned {
    CDPATH_OBJECTS_ONLY = 1,
    CDPATH_OBJECT_DOT = 2,
    CDPATH_ABSOLUTE = 4,
    CDPATH_FILTER_PREFIX = 8
};

/// Fills the place's node with the daemon's attributes of it and its direct children. What a Ctrl-C, a lost link or a
/// fault of the daemon's ends leaves everything as it was. Returns 0. A wait point.
int cdpath_fetch(cdpath *place);
/// The names below the place as a new array of strings; of a multi-instance object as the daemon lists them now. Null
/// when there is nothing to list. `text` is a filter (CDPATH_FILTER_PREFIX) or a prefix for each name. A wait point.
json_t *cdpath_content(const dm_path &path, const dm_node *node, const char *text, unsigned flags);
/// The same from the cache, in the order of the names' bytes, fetching only what was never fetched. Never null.
json_t *cdpath_content_fast(cdpath *place, const char *text, unsigned flags);
/// The input arguments of the method that the place stands on, or null. A wait point.
std::shared_ptr<dm_node> cdpath_get_input(const cdpath &place);
