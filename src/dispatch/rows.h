// The rows of the command table, for who lists them.
#pragma once

#include <span>

#include "dispatch/table.h"

std::span<const cmd_entry> cmd_rows();
