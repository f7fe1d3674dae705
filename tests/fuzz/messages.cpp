// Any JSON object as a message: read whole, shown again, used as an answer.
#include <cstdint>

#include "base/framing.h"
#include "base/json_ref.h"
#include "platform/ve_jrpcmsg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const json_ref json{wire_decode({reinterpret_cast<const char *>(data), size})};
    if (!json)
        return 0;
    const msg_ref message{ve_jrpcmsg_parse_json(json.get())};
    if (!message)
        return 0;
    const json_ref shown{ve_jrpcmsg_json(message.get())};
    ve_jrpcmsg_event_id(message.get());
    ve_jrpcmsg_event_value(message.get());
    const msg_ref request{ve_jrpcmsg_create_new("M", nullptr)};
    ve_jrpcmsg_complete(request.get(), message.get());
    ve_jrpcmsg_error_title(request.get());
    ve_jrpcmsg_parameter_list(request.get());
    ve_parameter entry;
    for (ve_parameters list = ve_jrpcmsg_parameters(request.get()); list.next(&entry);) {
    }
    return 0;
}
