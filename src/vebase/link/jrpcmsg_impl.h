// What a message is made of, for the link that sends and completes it.
#pragma once

#include <string>

#include "platform/ve_jrpcmsg.h"
#include "platform/ve_json.h"

struct ve_jrpcmsg {
    int kind = ve_jrpcmsg_request;
    json_ref raw;          // the JSON form that it was parsed from; null for a message that was built
    json_ref id;           // null until the request is sent for the first time
    bool keeps_id = false; // the user gave the id
    bool id_ready = false; // ve_jrpcapi_prepare gave it the id that the next send uses
    std::string method;
    json_ref params;
    size_t event_id = 0;
    json_ref value; // of an event

    // Completion of a request; the content of an answer.
    bool completed = false;
    json_ref answer; // the answer object; null when the completion stands for an answer that never came
    json_ref result;
    int code = 0;
    std::string text;
    json_ref data;
};

/// Completes `request` with the answer object (shared).
void ve_jrpcmsg_take_answer(ve_jrpcmsg *request, json_t *answer);
/// True when `answer` (an object without "method") carries the id of `request`.
bool ve_jrpcmsg_is_answered_by(const ve_jrpcmsg *request, const json_t *answer);
/// Appends the message as one line to `*out`. Returns 0, or -1 when it cannot be encoded or is longer than a line may
/// be; `*out` is then as it was.
int ve_jrpcmsg_encode(const ve_jrpcmsg *message, std::string *out);
