#include <string>
#include <utility>

#include "cdpath/cdpath.h"
#include "cdpath/dm_builder.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_wait.h"

namespace
{

/// A parameter of the root, but no node of the tree.
constexpr char version_parameter[] = "DataModelVersion";
constexpr int request_denied = 9001;
constexpr int invalid_name = 9005;

/// A request whose answer says what holds until further notice.
class query
{
public:
    explicit query(ve_jrpcmsg *request) : message_(request) {}

    ve_jrpcmsg *request() { return message_.get(); }
    /// False when no answer came.
    bool ask() { return msg_exec(message_.get(), -1) >= 0; }
    ve_parameters list() const { return ve_jrpcmsg_parameters(message_.get()); }
    bool refused() const { return code() == request_denied || code() == invalid_name; }
    bool denied() const { return code() == request_denied; }
    const char *words() const { return ve_jrpcmsg_error_message(message_.get()); }
    bool failed() const { return code() != 0 && !refused(); }

private:
    int code() const { return ve_jrpcmsg_error_code(message_.get()); }

    msg_ref message_;
};

/// The names of an answer's entries, in order.
json_t *names_of(ve_parameters list)
{
    json_t *names = json_array();
    for (ve_parameter entry; list.next(&entry);) {
        if (entry.name)
            json_array_append_new(names, json_stringn(entry.name->data(), entry.name->size()));
    }
    return names;
}

} // namespace

int cdpath_fetch(cdpath *place)
{
    const std::shared_ptr<dm_node> cache = dm;
    const std::string base = place->path.as_object();
    const bool multi = place->node != nullptr && place->node->is_multi();

    query level(ve_jrpcmsg_cmd_get_parameter_attributes_new(nullptr));
    ve_jrpcmsg_cmd_get_parameter_attributes_add(level.request(), base.c_str());
    json_object_set_new(ve_jrpcmsg_params(level.request()), "Depth", json_integer(1));
    if (!level.ask())
        return 0;
    bool failed = level.failed();
    dm_builder builder(place->path);
    if (cache != nullptr && place->path.is_root())
        builder.leave_out(version_parameter);
    builder.add(level.list());

    if (multi) {
        query names(ve_jrpcmsg_cmd_get_parameter_names(base.c_str(), 1));
        if (!names.ask())
            return 0;
        // Without a "Depth": an instance comes with its direct children.
        query instances(ve_jrpcmsg_cmd_get_parameter_attributes_new(names_of(names.list())));
        if (!instances.ask())
            return 0;
        failed = failed || names.failed() || instances.failed();
        builder.tell_all();
        builder.add(instances.list());
    }
    if (failed || builder.is_exhausted() || ve_wait_interrupted())
        return 0;

    // Nothing of the cache was touched so far: what is abandoned or lost leaves no trace.
    if (dm != cache && dm != nullptr) {
        // A reconnect has replaced it.
        if (const auto now = place->path.is_root() ? dm : dm->find(place->path.text()))
            place->node = now;
    }
    if (place->node == nullptr)
        place->node = std::make_shared<dm_node>();
    place->node->become(builder.take(), level.refused() ? dm_known::refused : dm_known::known);
    if (level.denied())
        place->node->denied = std::make_shared<const std::string>(level.words());
    return 0;
}
