// JSON-RPC messages: requests with their answers, events. One thread at a time.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <utility>

#include "platform/ve_json_text.h"

struct ve_jrpcmsg;

/// Message kinds.
enum ve_jrpcmsg_kind {
    ve_jrpcmsg_request = 1,
    ve_jrpcmsg_event = 2,
    ve_jrpcmsg_notification = 3,
    ve_jrpcmsg_answer = 4
};

/// Codes of an exchange that ended without an answer.
inline constexpr int ve_jrpc_err_timeout = -32001;
inline constexpr int ve_jrpc_err_lost = -32002;

// --- making: each returns a message that the caller owns; never null unless said ---

/// A request; takes over `params` (null: none).
ve_jrpcmsg *ve_jrpcmsg_create_new(const char *method, json_t *params);
/// An event; takes over `value` (null: none).
ve_jrpcmsg *ve_jrpcmsg_create_event_new(uint32_t id, json_t *value);
/// A message from its JSON form (shared, not taken over); null when it is no message. A request keeps its own id.
ve_jrpcmsg *ve_jrpcmsg_parse_json(json_t *json);

/// `session` null makes the link a session of its own.
ve_jrpcmsg *ve_jrpcmsg_cmd_join_group(uint32_t group, const char *session, bool receiver);
ve_jrpcmsg *ve_jrpcmsg_cmd_get_parameter_names(const char *path, int next_level);
/// Take over `names` (an array of texts; null: an empty one).
ve_jrpcmsg *ve_jrpcmsg_cmd_get_parameter_values_new(json_t *names);
ve_jrpcmsg *ve_jrpcmsg_cmd_get_parameter_attributes_new(json_t *names);
/// Append a name to "ParameterNames" of either request.
void ve_jrpcmsg_cmd_get_parameter_values_add(ve_jrpcmsg *message, const char *name);
void ve_jrpcmsg_cmd_get_parameter_attributes_add(ve_jrpcmsg *message, const char *name);
/// Takes over `list`, an array of {"Name", "Value"}.
ve_jrpcmsg *ve_jrpcmsg_cmd_set_parameter_values_new(json_t *list);
/// `order` UINT32_MAX leaves "Order" out of AddObject; ChangeOrder sends it as it stands.
ve_jrpcmsg *ve_jrpcmsg_cmd_add_object(const char *path, uint32_t order);
ve_jrpcmsg *ve_jrpcmsg_cmd_delete_object(const char *path);
ve_jrpcmsg *ve_jrpcmsg_cmd_change_order(const char *path, uint32_t order);
/// Takes over `arguments`, an array of {"Name", "Value"}.
ve_jrpcmsg *ve_jrpcmsg_cmd_execute(const char *path, json_t *arguments);

/// All of the request's answer will be taken as JSON values, its ParameterList too: an answer of which they would take
/// too much memory (json_text_is_bloated) then is an error. A raw request wants them anyway.
void ve_jrpcmsg_want_values(ve_jrpcmsg *request);

/// Frees; null is allowed.
void ve_jrpcmsg_free(ve_jrpcmsg *message);

// --- reading: texts and JSON values are borrowed from the message ---

int ve_jrpcmsg_typeof(const ve_jrpcmsg *message);
/// The message as JSON, a new reference. A completed request gives the answer object, the error answer that stands for
/// no answer included.
json_t *ve_jrpcmsg_json(const ve_jrpcmsg *message);
const json_t *ve_jrpcmsg_id(const ve_jrpcmsg *message);
/// The request's "params", made when there are none.
json_t *ve_jrpcmsg_params(ve_jrpcmsg *message);
/// Whether the answer has a result.
bool ve_jrpcmsg_has_result(const ve_jrpcmsg *message);
/// The answer's result as a value, made when it is first asked for; or null.
json_t *ve_jrpcmsg_result(const ve_jrpcmsg *message);
/// Member "ParameterList" of that value when it is an array, or null. Long lists are read by their parameters.
json_t *ve_jrpcmsg_parameter_list(const ve_jrpcmsg *message);
/// The entries of the answer's "ParameterList" where they stand; none without one.
ve_parameters ve_jrpcmsg_parameters(const ve_jrpcmsg *message);
/// 0 when there is no error.
int ve_jrpcmsg_error_code(const ve_jrpcmsg *message);
/// Never null.
const char *ve_jrpcmsg_error_title(const ve_jrpcmsg *message);
const char *ve_jrpcmsg_error_message(const ve_jrpcmsg *message);
/// An object, or null.
json_t *ve_jrpcmsg_error_data(const ve_jrpcmsg *message);
/// 0 for an answer.
size_t ve_jrpcmsg_event_id(const ve_jrpcmsg *message);
/// Null when the event carries none.
json_t *ve_jrpcmsg_event_value(const ve_jrpcmsg *message);

// --- completing ---

/// Clears result and error, so that the message can be sent again; a non-null `result` (taken over) becomes its result.
void ve_jrpcmsg_set_result_new(ve_jrpcmsg *message, json_t *result);
/// Stores an error; takes over `data` (null: none). The title follows from the code.
void ve_jrpcmsg_set_error(ve_jrpcmsg *message, int code, const char *text, json_t *data);
/// Completes `request` with what `answer` holds, which is empty then.
void ve_jrpcmsg_complete(ve_jrpcmsg *request, ve_jrpcmsg *answer);
/// The title of an error code ("Error" for one that has none).
const char *ve_jrpc_error_title(int code);

/// Owns a message. Move-only.
class msg_ref
{
public:
    msg_ref() = default;
    explicit msg_ref(ve_jrpcmsg *message) : message_(message) {}
    msg_ref(msg_ref &&other) noexcept : message_(std::exchange(other.message_, nullptr)) {}
    msg_ref &operator=(msg_ref &&other) noexcept
    {
        ve_jrpcmsg_free(std::exchange(message_, std::exchange(other.message_, nullptr)));
        return *this;
    }
    msg_ref(const msg_ref &) = delete;
    msg_ref &operator=(const msg_ref &) = delete;
    ~msg_ref() { ve_jrpcmsg_free(message_); }

    ve_jrpcmsg *get() const { return message_; }
    explicit operator bool() const { return message_ != nullptr; }
    [[nodiscard]] ve_jrpcmsg *release() { return std::exchange(message_, nullptr); }

private:
    ve_jrpcmsg *message_ = nullptr;
};
