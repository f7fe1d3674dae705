// How this program keeps the memory of JSON values. Their owner is json_ref.
#pragma once

#include "base/json_ref.h"

/// Gives Jansson this program's allocator: what runs out of memory is fatal, and the calling thread, whose many small
/// blocks are cheap from here on, must be the only one yet. Before any value is made.
void ve_json_own_memory();
/// Frees a text that Jansson made (json_dumps); null is nothing.
void ve_json_free(void *pointer);
