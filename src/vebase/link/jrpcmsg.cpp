#include "platform/ve_jrpcmsg.h"

#include <charconv>
#include <climits>
#include <cstring>
#include <utility>

#include "base/framing.h"
#include "base/json_write.h"
#include "platform/ve_log.h"
#include "vebase/link/jrpcmsg_impl.h"

namespace
{

struct code_title {
    int code;
    const char *title;
};

constexpr code_title code_titles[] = {
    {9000, "Method not supported"},
    {9001, "Request denied"},
    {9002, "Internal error"},
    {9003, "Invalid arguments"},
    {9004, "Resources exceeded"},
    {9005, "Invalid parameter name"},
    {9006, "Invalid parameter type"},
    {9007, "Invalid parameter value"},
    {9008, "Attempt to set a non-writable parameter"},
    {9010, "File transfer failure"},
    {9016, "File transfer server unreachable"},
    {9018, "File corrupted or unusable"},
    {-32700, "Parse error"},
    {-32600, "Invalid request"},
    {-32601, "Method not found"},
    {-32602, "Invalid params"},
    {-32603, "Internal error"},
    {ve_jrpc_err_timeout, "Timed out"},
    {ve_jrpc_err_lost, "Connection lost"},
};

constexpr int code_malformed = -32603;

int append_chunk(const char *data, size_t size, void *out)
{
    static_cast<std::string *>(out)->append(data, size);
    return 0;
}

int append_json(const json_t *value, std::string *out)
{
    return json_dump_callback(value, append_chunk, out, JSON_COMPACT | JSON_ENCODE_ANY);
}

bool is_id(const json_t *value)
{
    return json_is_number(value) || json_is_string(value);
}

void set_result(ve_jrpc_end *end, json_piece result)
{
    end->result = result;
    const json_piece list = result.member("ParameterList");
    end->list = list.is_array() ? list : json_piece();
}

/// Whether the values of an answer do, but for those in `left`, a part of it that is read entry by entry.
bool takes_too_much(std::string_view answer, std::string_view left)
{
    if (left.empty())
        return json_text_is_bloated(answer);
    const std::string_view before(answer.data(), static_cast<size_t>(left.data() - answer.data()));
    return json_text_is_bloated(before) || json_text_is_bloated(answer.substr(before.size() + left.size()));
}

void read_error(ve_jrpc_end *end, json_piece error)
{
    const json_ref code(error.member("code").load());
    const json_int_t number = json_integer_value(code.get());
    end->code = number == 0 || number < INT_MIN || number > INT_MAX ? code_malformed : static_cast<int>(number);
    std::string room;
    end->text = error.member("message").string(&room).value_or("");
    if (const json_piece data = error.member("data"); data.is_object())
        end->data.reset(data.load());
}

/// The value as a text that `memory` holds then.
json_piece written(const json_t *value, wire_memory *memory)
{
    const std::string text = json_written(value, JSON_COMPACT);
    memory->reset(static_cast<char *>(ve_xmalloc(text.size() + 1, "written", __LINE__, "jrpcmsg")));
    memcpy(memory->get(), text.c_str(), text.size() + 1);
    return json_piece({memory->get(), text.size()});
}

void read_event(ve_jrpcmsg *message, const json_t *json)
{
    const json_t *params = json_object_get(json, "params");
    const json_int_t id = json_integer_value(json_object_get(params, "Id"));
    message->event_id = id > 0 && id <= UINT32_MAX ? static_cast<size_t>(id) : 0;
    message->value = json_ref::share(json_object_get(params, "Value"));
}

void set_own(json_t *object, const char *key, json_t *value)
{
    json_object_set_new(object, key, value);
}

/// The error answer that stands for an answer that never came, or that somebody else completed the message with.
json_t *made_answer(const ve_jrpcmsg *message)
{
    json_t *answer = json_object();
    set_own(answer, "jsonrpc", json_string("2.0"));
    if (message->id)
        json_object_set(answer, "id", message->id.get());
    if (message->end.code == 0) {
        json_object_set(answer, "result", ve_jrpcmsg_result(message));
        return answer;
    }
    json_t *error = json_object();
    set_own(error, "code", json_integer(message->end.code));
    set_own(error, "message", json_stringn(message->end.text.data(), message->end.text.size()));
    if (message->end.data)
        json_object_set(error, "data", message->end.data.get());
    set_own(answer, "error", error);
    return answer;
}

json_t *event_params(const ve_jrpcmsg *message)
{
    json_t *params = json_object();
    set_own(params, "Id", json_integer(static_cast<json_int_t>(message->event_id)));
    if (message->value)
        json_object_set(params, "Value", message->value.get());
    return params;
}

} // namespace

ve_jrpcmsg *ve_jrpcmsg_parse_json(json_t *json)
{
    const json_t *method = json_object_get(json, "method");
    json_t *id = json_object_get(json, "id");
    if (!json_is_object(json) || (method == nullptr && id == nullptr) ||
        (method != nullptr && !json_is_string(method)) || (id != nullptr && !is_id(id)))
        return nullptr;
    auto *message = new ve_jrpcmsg;
    message->raw = json_ref::share(json);
    message->id = json_ref::share(id);
    message->keeps_id = true;
    if (method == nullptr) {
        message->kind = ve_jrpcmsg_answer;
        wire_memory memory;
        const ve_jrpc_parts parts(written(json, &memory));
        ve_jrpcmsg_take_answer(message, parts, std::move(memory));
        return message;
    }
    message->method = json_string_value(method);
    message->params = json_ref::share(json_object_get(json, "params"));
    if (id != nullptr) {
        message->kind = ve_jrpcmsg_request;
    } else if (message->method == "Event") {
        message->kind = ve_jrpcmsg_event;
        read_event(message, json);
    } else {
        message->kind = ve_jrpcmsg_notification;
    }
    return message;
}

void ve_jrpcmsg_free(ve_jrpcmsg *message)
{
    delete message;
}

int ve_jrpcmsg_encode(const ve_jrpcmsg *message, std::string *out)
{
    if (message->raw)
        return wire_encode(message->raw.get(), out);
    const size_t before = out->size();
    *out += "{\"jsonrpc\":\"2.0\"";
    if (message->id) {
        char digits[24];
        const auto end = std::to_chars(digits, digits + sizeof digits, json_integer_value(message->id.get()));
        *out += ",\"id\":";
        out->append(digits, static_cast<size_t>(end.ptr - digits));
    }
    *out += ",\"method\":";
    int failed;
    const json_ref method(json_stringn(message->method.data(), message->method.size()));
    failed = append_json(method.get(), out);
    const json_ref params =
        message->kind == ve_jrpcmsg_event ? json_ref(event_params(message)) : json_ref::share(message->params.get());
    if (params) {
        *out += ",\"params\":";
        failed |= append_json(params.get(), out);
    }
    *out += "}";
    if (failed != 0 || out->size() - before > wire_line_max) {
        out->resize(before);
        return -1;
    }
    *out += '\n';
    return 0;
}

int ve_jrpcmsg_typeof(const ve_jrpcmsg *message)
{
    return message->kind;
}

json_t *ve_jrpcmsg_json(const ve_jrpcmsg *message)
{
    if (message->end.completed)
        return message->end.answer ? message->end.answer.load() : made_answer(message);
    if (message->raw)
        return json_incref(message->raw.get());
    json_t *json = json_object();
    set_own(json, "jsonrpc", json_string("2.0"));
    if (message->id)
        json_object_set(json, "id", message->id.get());
    set_own(json, "method", json_stringn(message->method.data(), message->method.size()));
    if (message->kind == ve_jrpcmsg_event)
        set_own(json, "params", event_params(message));
    else if (message->params)
        json_object_set(json, "params", message->params.get());
    return json;
}

const json_t *ve_jrpcmsg_id(const ve_jrpcmsg *message)
{
    return message->id.get();
}

json_t *ve_jrpcmsg_params(ve_jrpcmsg *message)
{
    if (!message->params) {
        message->params.reset(json_object());
        if (message->raw)
            json_object_set(message->raw.get(), "params", message->params.get());
    }
    return message->params.get();
}

void ve_jrpcmsg_want_values(ve_jrpcmsg *request)
{
    request->wants_values = true;
}

bool ve_jrpcmsg_has_result(const ve_jrpcmsg *message)
{
    return static_cast<bool>(message->end.result);
}

json_t *ve_jrpcmsg_result(const ve_jrpcmsg *message)
{
    if (!message->end.result_value)
        message->end.result_value.reset(message->end.result.load());
    return message->end.result_value.get();
}

json_t *ve_jrpcmsg_parameter_list(const ve_jrpcmsg *message)
{
    json_t *list = json_object_get(ve_jrpcmsg_result(message), "ParameterList");
    return json_is_array(list) ? list : nullptr;
}

ve_parameters ve_jrpcmsg_parameters(const ve_jrpcmsg *message)
{
    return ve_parameters(message->end.list);
}

int ve_jrpcmsg_error_code(const ve_jrpcmsg *message)
{
    return message->end.code;
}

const char *ve_jrpcmsg_error_title(const ve_jrpcmsg *message)
{
    return message->end.code == 0 ? "" : ve_jrpc_error_title(message->end.code);
}

const char *ve_jrpcmsg_error_message(const ve_jrpcmsg *message)
{
    return message->end.text.c_str();
}

json_t *ve_jrpcmsg_error_data(const ve_jrpcmsg *message)
{
    return message->end.data.get();
}

size_t ve_jrpcmsg_event_id(const ve_jrpcmsg *message)
{
    return message->event_id;
}

json_t *ve_jrpcmsg_event_value(const ve_jrpcmsg *message)
{
    return message->value.get();
}

void ve_jrpcmsg_set_result_new(ve_jrpcmsg *message, json_t *result)
{
    message->end = {};
    message->end.completed = result != nullptr;
    const json_ref owned(result);
    if (result != nullptr)
        set_result(&message->end, written(result, &message->end.memory));
}

void ve_jrpcmsg_set_error(ve_jrpcmsg *message, int code, const char *text, json_t *data)
{
    message->end = {};
    message->end.completed = true;
    message->end.code = code;
    message->end.text = text;
    message->end.data.reset(data);
}

ve_jrpc_parts::ve_jrpc_parts(json_piece object) : answer(object)
{
    for (json_walk members(object); members.next();) {
        if (members.is("method"))
            method = members.value();
        else if (members.is("id"))
            id = members.value();
        else if (members.is("result"))
            result = members.value();
        else if (members.is("error"))
            error = members.value();
    }
}

void ve_jrpcmsg_take_answer(ve_jrpcmsg *request, const ve_jrpc_parts &parts, wire_memory memory)
{
    request->end = {};
    request->end.completed = true;
    request->end.memory = std::move(memory);
    request->end.answer = parts.answer;
    const json_piece list = parts.result.member("ParameterList");
    const size_t listed = list.is_array() && !request->raw && !request->wants_values ? list.text().size() : 0;
    if (takes_too_much(parts.answer.text(), list.text().substr(0, listed))) {
        request->end.answer = {};
        request->end.code = code_malformed;
        request->end.text = "the daemon's answer would take too much memory";
        return;
    }
    // Whatever is not shaped like an answer reads as an error, never as a success.
    if (parts.error && !parts.error.is_null()) {
        read_error(&request->end, parts.error);
    } else if (parts.result.is_object()) {
        set_result(&request->end, parts.result);
    } else {
        request->end.code = code_malformed;
        request->end.text = "the daemon's answer has no result";
    }
}

void ve_jrpcmsg_complete(ve_jrpcmsg *request, ve_jrpcmsg *answer)
{
    request->end = std::exchange(answer->end, {});
}

bool ve_jrpcmsg_is_answered_by(const ve_jrpcmsg *request, const ve_jrpc_parts &parts)
{
    return request->id && json_equal(request->id.get(), json_ref(parts.id.load()).get()) != 0;
}

const char *ve_jrpc_error_title(int code)
{
    for (const code_title &entry : code_titles)
        if (entry.code == code)
            return entry.title;
    return "Error";
}
