// Answers as lines of text.
#pragma once

#include "veld/rpc/service.h"

#include "base/json_write.h"

namespace veld
{

inline constexpr std::string_view status_ok = "{\"Status\":0}";

/// What a client always gets, however much is queued for the others.
inline constexpr size_t answer_of_everybody = size_t{64} << 10;

template <class Write> void service::answer_written(const ticket &to, Write write)
{
    std::string line = "{\"jsonrpc\":\"2.0\",\"id\":" + to.id + ",\"result\":";
    // One byte is left for the brace that ends the message.
    if (const fault problem = write(answer_text{&line, wire_line_max - 1})) {
        answer_fault(to, problem);
        return;
    }
    line += "}\n";
    if (memory_.output_full() && line.size() > answer_of_everybody) {
        answer_fault(to, {code::resources, "too many answers wait to be read", ""});
        return;
    }
    send_to(to, std::move(line));
}

} // namespace veld
