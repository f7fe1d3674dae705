// How the handlers read a typed path: on a copy of the shell's place, so that failing leaves the shell where it is.
#pragma once

#include <string>

#include "cdpath/cdpath.h"

/// The scheme is there, so that typed paths can be checked and completed.
inline bool place_scheme_loaded()
{
    return dm != nullptr;
}

/// Moves `place`, which stands where the shell does, to `text` (null: stay). Without a scheme it stays too. False when
/// there is nothing. A wait point.
inline bool place_go(cdpath *place, const char *text)
{
    return !place_scheme_loaded() || ((text == nullptr || cdpath_parse(place, text) == 0) && cdpath_settle(place));
}

/// What cannot be found: the typed path, or the place of the shell itself.
inline std::string place_sought(const char *text)
{
    return text != nullptr ? text : ":" + cwd.text();
}

inline bool place_is_parameter(const cdpath &place)
{
    return !place.path.is_root() && place.node != nullptr && !place.node->is_object();
}
