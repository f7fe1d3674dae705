// How the handlers read a typed path: on a copy of the shell's place, so that failing leaves the shell where it is.
#pragma once

#include <string>

#include "cdpath/cdpath.h"

/// Moves `place` to `text` (null: stay). Without a scheme it stays too. False when the path cannot be followed. A wait
/// point.
inline bool place_go(cdpath *place, const char *text)
{
    return text == nullptr || place->node == nullptr || cdpath_parse(place, text) == 0;
}

/// The scheme is there, so that typed paths can be checked and completed.
inline bool place_scheme_loaded()
{
    return cwd.node != nullptr;
}

/// `path` with a final dot, as the daemon spells objects.
inline std::string place_with_dot(const char *path)
{
    std::string text = path;
    if (!text.ends_with('.'))
        text += '.';
    return text;
}
