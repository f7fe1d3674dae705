// The owner of JSON values, for the units above the library.
#pragma once

#include "base/json_ref.h"
