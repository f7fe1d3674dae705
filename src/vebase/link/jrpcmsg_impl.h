// What a message is made of, for the link that sends and completes it.
#pragma once

#include <string>

#include "base/framing.h"
#include "base/json_ref.h"
#include "platform/ve_jrpcmsg.h"
#include "platform/ve_json_text.h"

/// How a request ended, what an answer says.
struct ve_jrpc_end {
    bool completed = false;
    wire_memory memory; ///< what the pieces stand in
    json_piece answer;  ///< the whole answer; none when this stands for an answer that never came
    json_piece result;  ///< an object, or none
    json_piece list;    ///< the result's ParameterList: an array, or none
    int code = 0;
    std::string text;
    json_ref data;
    mutable json_ref result_value; ///< `result`, once somebody asked for it as a value
};

struct ve_jrpcmsg {
    int kind = ve_jrpcmsg_request;
    bool wants_values = false; // of its answer, all of it
    json_ref raw;              // the JSON form that it was parsed from; null for a message that was built
    json_ref id;               // null until the request is sent for the first time
    bool keeps_id = false;     // the user gave the id
    bool id_ready = false;     // ve_jrpcapi_prepare gave it the id that the next send uses
    std::string method;
    json_ref params;
    size_t event_id = 0;
    json_ref value; // of an event

    ve_jrpc_end end;
};

/// What decides about an object that came in.
struct ve_jrpc_parts {
    explicit ve_jrpc_parts(json_piece object);

    json_piece answer; ///< the whole object
    json_piece method;
    json_piece id;
    json_piece result;
    json_piece error;
};
/// Completes `request` with an answer's parts, which stand in `memory`.
void ve_jrpcmsg_take_answer(ve_jrpcmsg *request, const ve_jrpc_parts &parts, wire_memory memory);
/// True when `parts` are the answer to `request`.
bool ve_jrpcmsg_is_answered_by(const ve_jrpcmsg *request, const ve_jrpc_parts &parts);
/// Appends the message as one line to `*out`. Returns 0, or -1 when it cannot be encoded or is longer than a line may
/// be; `*out` is then as it was.
int ve_jrpcmsg_encode(const ve_jrpcmsg *message, std::string *out);
