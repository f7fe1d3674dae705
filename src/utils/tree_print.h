// Trees drawn with box glyphs.
#pragma once

#include <jansson.h>

/// Prints a tree description: {"name": text, "content": [descriptions], "value": any, "multi": boolean}. Children stand
/// in byte order, those of a "multi" node in numeric order.
void json_dump_tree(const json_t *tree);
