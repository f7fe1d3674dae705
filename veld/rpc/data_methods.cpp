#include "veld/model/change.h"
#include "veld/rpc/answer.h"
#include "veld/rpc/service.h"

namespace veld
{

namespace
{

constexpr int64_t event_value_set = 1;
constexpr int64_t event_instances = 4;

} // namespace

void service::get_names(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ParameterPath");
    const bool next_level = reader.boolean("NextLevel", false);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    answer_written(to, [&](answer_text out) { return query_names(&tree_, from.who.rights, path, next_level, out); });
}

void service::get_values(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const json_t *names = reader.texts("ParameterNames");
    if (reader.problem())
        return answer_fault(to, reader.problem());
    answer_written(to, [&](answer_text out) { return query_values(&tree_, from.who.rights, names, out); });
}

void service::get_attributes(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const json_t *names = reader.texts("ParameterNames");
    const int64_t depth = reader.integer("Depth", -1, 0);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    answer_written(to, [&](answer_text out) { return query_attributes(&tree_, from.who.rights, names, depth, out); });
}

void service::set_values(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const json_t *list = reader.name_values("ParameterList");
    if (reader.problem())
        return answer_fault(to, reader.problem());
    std::vector<value_change> changes;
    if (const fault problem = change_values(&tree_, from.who.rights, list, &changes))
        return answer_fault(to, problem);
    const std::string user = from.who.name;
    answer_result(to, status_ok);
    for (const value_change &change : changes) {
        json_ref value{json_object()};
        json_object_set_new(value.get(), "Name", json_string(change.name.c_str()));
        if (change.what->secret)
            json_object_set_new(value.get(), "Value", json_string(""));
        else
            json_object_set(value.get(), "Value", change.value.get());
        json_object_set_new(value.get(), "User", json_stringn(user.data(), user.size()));
        deliver(event_value_set, value.get(), change.what->read);
    }
}

void service::instance_event(const char *action, const node *table, uint32_t number)
{
    json_ref value{json_object()};
    json_object_set_new(value.get(), "Action", json_string(action));
    json_object_set_new(value.get(), "Path", json_string(tree::name(table).c_str()));
    json_object_set_new(value.get(), "InstanceNumber", json_integer(number));
    deliver(event_instances, value.get(), table->what->reach);
}

void service::add_object(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ObjectName");
    const int64_t order = reader.integer("Order", 0, 1);
    if (reader.problem())
        return answer_fault(to, reader.problem());
    node *added = nullptr;
    if (const fault problem = change_add(&tree_, from.who.rights, path, static_cast<uint64_t>(order), &added))
        return answer_fault(to, problem);
    answer_result(to, "{\"InstanceNumber\":" + std::to_string(added->number) + ",\"Status\":0}");
    instance_event("Add", added->parent, added->number);
}

void service::delete_object(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ObjectName");
    if (reader.problem())
        return answer_fault(to, reader.problem());
    node *table = nullptr;
    uint32_t number = 0;
    if (const fault problem = change_delete(&tree_, from.who.rights, path, &table, &number))
        return answer_fault(to, problem);
    answer_result(to, status_ok);
    instance_event("Delete", table, number);
}

void service::change_order_of(client &from, const json_t *params, const ticket &to)
{
    param_reader reader(params);
    const std::string path = reader.text("ObjectName");
    const int64_t order = reader.integer("Order", 0, 1);
    if (!reader.problem() && order == 0)
        return answer_fault(to, {code::bad_params, "\"Order\" must be an integer", ""});
    if (reader.problem())
        return answer_fault(to, reader.problem());
    if (const fault problem = change_order(&tree_, from.who.rights, path, static_cast<uint64_t>(order)))
        return answer_fault(to, problem);
    answer_result(to, status_ok);
}

} // namespace veld
