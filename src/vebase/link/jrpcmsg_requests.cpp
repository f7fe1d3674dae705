// The requests and events that the client sends.
#include <cstring>

#include "platform/ve_jrpcmsg.h"
#include "vebase/link/jrpcmsg_impl.h"

namespace
{

json_t *object_with(const char *key, json_t *value)
{
    json_t *object = json_object();
    json_object_set_new(object, key, value);
    return object;
}

ve_jrpcmsg *request_with(const char *method, const char *key, json_t *value)
{
    return ve_jrpcmsg_create_new(method, object_with(key, value));
}

void append_name(ve_jrpcmsg *message, const char *name)
{
    json_array_append_new(json_object_get(message->params.get(), "ParameterNames"), json_string(name));
}

json_t *array_or_empty(json_t *array)
{
    return array != nullptr ? array : json_array();
}

} // namespace

ve_jrpcmsg *ve_jrpcmsg_create_new(const char *method, json_t *params)
{
    auto *message = new ve_jrpcmsg;
    message->method = method;
    message->params.reset(params);
    return message;
}

ve_jrpcmsg *ve_jrpcmsg_create_event_new(uint32_t id, json_t *value)
{
    auto *message = new ve_jrpcmsg;
    message->kind = ve_jrpcmsg_event;
    message->method = "Event";
    message->event_id = id;
    message->value.reset(value);
    return message;
}

ve_jrpcmsg *ve_jrpcmsg_cmd_join_group(uint32_t group, const char *session, bool receiver)
{
    ve_jrpcmsg *message = request_with("JoinGroup", "Group", json_integer(group));
    if (session != nullptr)
        json_object_set_new(message->params.get(), "Session", json_string(session));
    if (receiver)
        json_object_set_new(message->params.get(), "Receiver", json_true());
    return message;
}

ve_jrpcmsg *ve_jrpcmsg_cmd_get_parameter_names(const char *path, int next_level)
{
    ve_jrpcmsg *message = request_with("GetParameterNames", "ParameterPath", json_string(path));
    json_object_set_new(message->params.get(), "NextLevel", json_boolean(next_level));
    return message;
}

ve_jrpcmsg *ve_jrpcmsg_cmd_get_parameter_values_new(json_t *names)
{
    return request_with("GetParameterValues", "ParameterNames", array_or_empty(names));
}

ve_jrpcmsg *ve_jrpcmsg_cmd_get_parameter_attributes_new(json_t *names)
{
    return request_with("GetParameterAttributes", "ParameterNames", array_or_empty(names));
}

void ve_jrpcmsg_cmd_get_parameter_values_add(ve_jrpcmsg *message, const char *name)
{
    append_name(message, name);
}

void ve_jrpcmsg_cmd_get_parameter_attributes_add(ve_jrpcmsg *message, const char *name)
{
    append_name(message, name);
}

ve_jrpcmsg *ve_jrpcmsg_cmd_set_parameter_values_new(json_t *list)
{
    return request_with("SetParameterValues", "ParameterList", array_or_empty(list));
}

ve_jrpcmsg *ve_jrpcmsg_cmd_add_object(const char *path, uint32_t order)
{
    ve_jrpcmsg *message = request_with("AddObject", "ObjectName", json_string(path));
    if (order != UINT32_MAX)
        json_object_set_new(message->params.get(), "Order", json_integer(order));
    return message;
}

ve_jrpcmsg *ve_jrpcmsg_cmd_delete_object(const char *path)
{
    return request_with("DeleteObject", "ObjectName", json_string(path));
}

ve_jrpcmsg *ve_jrpcmsg_cmd_change_order(const char *path, uint32_t order)
{
    ve_jrpcmsg *message = request_with("ChangeOrder", "ObjectName", json_string(path));
    json_object_set_new(message->params.get(), "Order", json_integer(order));
    return message;
}

ve_jrpcmsg *ve_jrpcmsg_cmd_execute(const char *path, json_t *arguments)
{
    ve_jrpcmsg *message = request_with("Execute", "Path", json_string(path));
    json_object_set_new(message->params.get(), "ParameterList", array_or_empty(arguments));
    return message;
}
