// The XML of a data model, read as a stream of elements.
#include "veld/import/data_model.h"

#include "base/fd.h"

#include <expat.h>
#include <fcntl.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace veld
{

namespace
{

constexpr std::string_view document_namespace = "urn:broadband-forum-org:cwmp:datamodel-";

// What an open element is to us.
enum class place : uint8_t {
    outside,
    document,
    named_type,
    model,
    object,
    parameter,
    syntax,
    list,
    type,
    unique_key,
    command,
    input,
    output,
    argument_object,
    ignored // and so is everything inside
};

struct attributes {
    const char **list;

    std::optional<std::string_view> find(std::string_view name) const
    {
        for (const char **at = list; at[0] != nullptr; at += 2)
            if (name == at[0])
                return at[1];
        return std::nullopt;
    }
    std::string text(std::string_view name) const { return std::string(find(name).value_or("")); }
    bool deleted() const { return find("status") == "deleted"; }
};

bool is_type_name(std::string_view name)
{
    for (std::string_view each : {"string", "boolean", "int", "unsignedInt", "long", "unsignedLong", "decimal",
                                  "dateTime", "base64", "hexBinary", "dataType"})
        if (name == each)
            return true;
    return false;
}

class reader
{
public:
    reader(data_model *into, std::string *error) : into_(into), error_(error) {}
    bool read(const char *path);

private:
    void start(std::string_view name, const attributes &given);
    void end();
    place enter(place parent, std::string_view name, const attributes &given);
    place enter_model(const attributes &given);
    place enter_object(const attributes &given);
    place enter_command(const attributes &given);
    place enter_type(std::string_view name, const attributes &given);
    place enter_named_type(const attributes &given);
    place enter_parameter(std::vector<parameter_declaration> *list, const attributes &given);
    place facet(std::string_view name, const attributes &given, type_use *of);
    interval bounds(const attributes &given, std::string_view low, std::string_view high);
    std::optional<int64_t> number(const attributes &given, std::string_view name);
    unsigned long line() const { return XML_GetCurrentLineNumber(parser_); }
    void fail(unsigned long at, const std::string &what);

    data_model *into_;
    std::string *error_;
    XML_Parser parser_ = nullptr;
    std::vector<place> open_{place::outside};
    // What is being filled in; each is set while an element that has it is open.
    object_declaration *object_ = nullptr;
    command_declaration *command_ = nullptr;
    std::vector<argument_group> *direction_ = nullptr;
    std::vector<parameter_declaration> *parameters_ = nullptr;
    syntax *syntax_ = nullptr;
    std::vector<std::string> key_;
    bool models_ = false;
};

void reader::fail(unsigned long at, const std::string &what)
{
    if (error_->empty())
        *error_ = "line " + std::to_string(at) + ": " + what;
    XML_StopParser(parser_, XML_FALSE);
}

std::optional<int64_t> reader::number(const attributes &given, std::string_view name)
{
    std::optional<std::string_view> text = given.find(name);
    if (!text)
        return std::nullopt;
    int64_t value = 0;
    auto [end, problem] = std::from_chars(text->data(), text->data() + text->size(), value);
    if (problem == std::errc::result_out_of_range) // beyond what any value can be: no bound
        return std::nullopt;
    if (problem != std::errc{} || end != text->data() + text->size())
        fail(line(), std::string(name) + " \"" + std::string(*text) + "\" is no number");
    return value;
}

interval reader::bounds(const attributes &given, std::string_view low, std::string_view high)
{
    return {number(given, low), number(given, high)};
}

place reader::enter_model(const attributes &given)
{
    if (models_) {
        fail(line(), "a second model in one document");
        return place::ignored;
    }
    models_ = true;
    into_->name = given.text("name");
    return place::model;
}

place reader::enter_object(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    object_declaration &object = into_->objects.emplace_back();
    object.line = line();
    object.path = given.text("name");
    object.writable = given.find("access") == "readWrite";
    object.min_entries = given.find("minEntries") ? number(given, "minEntries") : 1;
    if (given.find("maxEntries") != "unbounded")
        object.max_entries = given.find("maxEntries") ? number(given, "maxEntries") : 1;
    object.counter = given.text("numEntriesParameter");
    object_ = &object;
    parameters_ = &object.parameters;
    return place::object;
}

place reader::enter_command(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    command_declaration &command = object_->commands.emplace_back();
    command.line = line();
    command.name = given.text("name");
    if (command.name.ends_with("()"))
        command.name.resize(command.name.size() - 2);
    command_ = &command;
    return place::command;
}

place reader::enter_named_type(const attributes &given)
{
    auto [at, fresh] = into_->types.try_emplace(given.text("name"));
    if (!fresh) {
        fail(line(), "the data type \"" + at->first + "\" is declared twice");
        return place::ignored;
    }
    at->second.line = line();
    syntax_ = &at->second.body;
    if (std::string base = given.text("base"); !base.empty())
        syntax_->type = type_use{"dataType", base, {}, {}, {}, {}};
    return place::named_type;
}

place reader::enter_parameter(std::vector<parameter_declaration> *list, const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    parameter_declaration &parameter = list->emplace_back();
    parameter.line = line();
    parameter.name = given.text("name");
    // What may be written once, when its object is made, is written like any other.
    parameter.writable = given.find("access").value_or("readOnly") != "readOnly";
    syntax_ = &parameter.form;
    return place::parameter;
}

place reader::enter_type(std::string_view name, const attributes &given)
{
    if (syntax_->type) {
        fail(line(), "a second type where one is expected");
        return place::ignored;
    }
    syntax_->type.emplace();
    syntax_->type->name = name;
    if (name == "dataType") {
        syntax_->type->own_type = given.find("ref") ? given.text("ref") : given.text("base");
        if (syntax_->type->own_type.empty())
            fail(line(), "a data type without a name");
    }
    return place::type;
}

place reader::facet(std::string_view name, const attributes &given, type_use *of)
{
    if (given.deleted())
        return place::ignored;
    if (name == "enumeration")
        of->enumeration.push_back(given.text("value"));
    else if (name == "pattern")
        of->patterns.push_back(given.text("value"));
    else if (name == "range")
        of->ranges.push_back(bounds(given, "minInclusive", "maxInclusive"));
    else if (name == "size")
        of->sizes.push_back(bounds(given, "minLength", "maxLength"));
    else if (name == "pathRef")
        of->path = true;
    return place::ignored; // what is inside these does not matter
}

place reader::enter(place parent, std::string_view name, const attributes &given)
{
    switch (parent) {
    case place::document:
        return name == "dataType" ? enter_named_type(given) : name == "model" ? enter_model(given) : place::ignored;
    case place::model:
        return name == "object" ? enter_object(given) : place::ignored;
    case place::object:
        if (name == "command")
            return enter_command(given);
        if (name == "uniqueKey") {
            key_.clear();
            return place::unique_key;
        }
        return name == "parameter" ? enter_parameter(parameters_, given) : place::ignored;
    case place::unique_key:
        if (name == "parameter")
            key_.push_back(given.text("ref"));
        return place::ignored;
    case place::command:
        if (name != "input" && name != "output")
            return place::ignored;
        direction_ = name == "input" ? &command_->input : &command_->output;
        direction_->push_back({"", {}, line()});
        return name == "input" ? place::input : place::output;
    case place::input:
    case place::output:
        if (name == "parameter") // the first group is the one of the arguments that are in no object
            return enter_parameter(&direction_->front().parameters, given);
        if (name != "object" || given.deleted())
            return place::ignored;
        direction_->push_back({given.text("name"), {}, line()});
        return place::argument_object;
    case place::argument_object:
        return name == "parameter" ? enter_parameter(&direction_->back().parameters, given) : place::ignored;
    case place::parameter:
        if (name != "syntax")
            return place::ignored;
        syntax_->secured = given.find("secured") == "true";
        syntax_->triggers = given.find("command") == "true";
        return place::syntax;
    case place::syntax:
    case place::named_type:
        if (name == "list") {
            syntax_->list = true;
            syntax_->min_items = number(given, "minItems");
            if (given.find("maxItems") != "unbounded")
                syntax_->max_items = number(given, "maxItems");
            return place::list;
        }
        if (is_type_name(name) && (parent == place::syntax || !syntax_->type))
            return enter_type(name, given);
        if (name == "default" && !given.deleted())
            syntax_->initial = given.text("value");
        if (parent == place::named_type && syntax_->type) // restricts the type that it is based on
            return facet(name, given, &*syntax_->type);
        return place::ignored;
    case place::list:
        if (name == "size")
            syntax_->list_sizes.push_back(bounds(given, "minLength", "maxLength"));
        return place::ignored;
    case place::type:
        return facet(name, given, &*syntax_->type);
    case place::outside:
    case place::ignored:
        break;
    }
    return place::ignored;
}

void reader::start(std::string_view name, const attributes &given)
{
    if (open_.back() == place::outside) {
        size_t bar = name.rfind('|');
        if (bar == std::string_view::npos || name.substr(bar + 1) != "document" ||
            !name.starts_with(document_namespace))
            fail(line(),
                 "not a Broadband Forum data model (its root is \"" + std::string(name.substr(bar + 1)) + "\")");
        open_.push_back(place::document);
        return;
    }
    open_.push_back(open_.back() == place::ignored ? place::ignored : enter(open_.back(), name, given));
}

void reader::end()
{
    if (open_.back() == place::unique_key && key_.size() == 1)
        object_->unique.push_back(key_[0]);
    open_.pop_back();
}

bool reader::read(const char *path)
{
    fd_owner file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!file) {
        *error_ = strerror(errno);
        return false;
    }
    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreateNS(nullptr, '|'),
                                                                        XML_ParserFree);
    if (!parser) {
        *error_ = "out of memory";
        return false;
    }
    parser_ = parser.get();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(
        parser_,
        [](void *self, const char *name, const char **list) {
            static_cast<reader *>(self)->start(name, attributes{list});
        },
        [](void *self, const char *) { static_cast<reader *>(self)->end(); });

    constexpr int chunk = 1 << 16;
    for (bool last = false; !last;) {
        void *room = XML_GetBuffer(parser_, chunk);
        ssize_t got = room != nullptr ? ::read(file.get(), room, chunk) : -1;
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0) {
            *error_ = strerror(room != nullptr ? errno : ENOMEM);
            return false;
        }
        last = got == 0;
        if (XML_ParseBuffer(parser_, int(got), last) == XML_STATUS_OK)
            continue;
        if (error_->empty()) // it is not our handlers that stopped
            *error_ = "line " + std::to_string(line()) + ": " + XML_ErrorString(XML_GetErrorCode(parser_)) +
                      (last ? " (the file ends too early)" : "");
        return false;
    }
    if (!models_ || into_->objects.empty()) {
        *error_ = "not a Broadband Forum data model (it declares no objects)";
        return false;
    }
    return true;
}

} // namespace

bool read_data_model(const char *path, data_model *into, std::string *error)
{
    error->clear();
    return reader(into, error).read(path);
}

} // namespace veld
