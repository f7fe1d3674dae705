// Answers as lines of text.
#pragma once

#include "veld/rpc/service.h"

#include "base/json_write.h"

namespace veld
{

inline constexpr std::string_view status_ok = "{\"Status\":0}";

/// What a client always gets, however much is queued for it elsewhere.
inline constexpr size_t answer_of_everybody = size_t{64} << 10;

} // namespace veld
