// The XML of a data model, read as a stream of elements.
#include "veld/import/data_model.h"

#include "base/fd.h"
#include "veld/import/xml_names.h"

#include <expat.h>
#include <fcntl.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <memory>
#include <string_view>

namespace veld
{

namespace
{

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
    event,
    argument_object,
    description,
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
    std::string token(std::string_view name) const { return xml_token(find(name).value_or("")); }
    bool is(std::string_view name, std::string_view value) const { return token(name) == value; }
    bool truth(std::string_view name) const { return is(name, "true") || is(name, "1"); }
    bool deleted() const { return is("status", "deleted"); }
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
    reader(data_model *into, import_warnings *warnings, std::string *error)
        : into_(into), warnings_(warnings), error_(error)
    {
    }
    bool read(const char *path);

private:
    void start(std::string_view name, const attributes &given);
    void end();
    void text(std::string_view characters)
    {
        if (open_.back() == place::description)
            description_ += characters;
    }
    bool parse(gzFile file);
    place enter(place parent, std::string_view name, const attributes &given);
    place enter_root(std::string_view name);
    place enter_model(const attributes &given);
    place enter_model_part(std::string_view name, const attributes &given);
    place enter_object(const attributes &given);
    place enter_object_part(std::string_view name, const attributes &given);
    place enter_command(const attributes &given);
    place enter_event(const attributes &given);
    place enter_direction(std::string_view name);
    place enter_argument(std::string_view name, const attributes &given);
    place enter_syntax(const attributes &given);
    place enter_syntax_part(place parent, std::string_view name, const attributes &given);
    place enter_type(std::string_view name, const attributes &given);
    place enter_named_type(const attributes &given);
    place enter_parameter(std::vector<parameter_declaration> *list, const attributes &given);
    place facet(std::string_view name, const attributes &given, type_use *of);
    void add_interval(std::vector<interval> *to, const attributes &given, std::string_view low, std::string_view high);
    std::optional<int64_t> number(const attributes &given, std::string_view name);
    void declare(remarks *about, const attributes &given);
    void end_description();
    void note_prefixes(std::string_view name, const attributes &given);
    unsigned long line() const { return XML_GetCurrentLineNumber(parser_); }
    std::string where() const;
    void warn(const std::string &what) { warnings_->add(line(), where(), what); }
    void fail(const std::string &what);

    data_model *into_;
    import_warnings *warnings_;
    std::string *error_;
    XML_Parser parser_ = nullptr;
    xml_names names_;
    std::vector<place> open_{place::outside};
    // What is being filled in; each is set while an element that has it is open.
    model_declaration *model_ = nullptr;
    object_declaration *object_ = nullptr;
    command_declaration *command_ = nullptr;
    event_declaration *event_ = nullptr;
    parameter_declaration *parameter_ = nullptr;
    std::vector<argument_group> *direction_ = nullptr;
    syntax *syntax_ = nullptr;
    std::string type_name_; // of the data type that is open
    std::string description_;
    key_declaration key_;
};

std::string reader::where() const
{
    if (!type_name_.empty())
        return "data type \"" + type_name_ + "\"";
    std::string path = object_ != nullptr ? object_->path : "";
    if (command_ != nullptr)
        path += command_->name + "().";
    if (event_ != nullptr)
        path += event_->name + "!.";
    if (parameter_ != nullptr)
        path += parameter_->name;
    if (path.empty() && model_ != nullptr)
        return model_->name;
    return path.empty() ? "the document" : path;
}

void reader::fail(const std::string &what)
{
    if (error_->empty())
        *error_ = "line " + std::to_string(line()) + ": " + what;
    XML_StopParser(parser_, XML_FALSE);
}

std::optional<int64_t> reader::number(const attributes &given, std::string_view name)
{
    if (!given.find(name))
        return std::nullopt;
    std::string text = given.token(name);
    std::string_view digits = text;
    digits.remove_prefix(digits.starts_with('+') ? 1 : 0);
    int64_t value = 0;
    auto [end, problem] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
    if (problem == std::errc::result_out_of_range) // beyond what any value can be: no bound
        return std::nullopt;
    if (problem != std::errc{} || end != digits.data() + digits.size()) {
        warn(std::string(name) + " \"" + text + "\" is no number; left out");
        return std::nullopt;
    }
    return value;
}

void reader::add_interval(std::vector<interval> *to, const attributes &given, std::string_view low,
                          std::string_view high)
{
    const interval made = {number(given, low), number(given, high),
                           std::max<int64_t>(number(given, "step").value_or(1), 1)};
    if (high == "maxLength" && made.high && *made.high < 0)
        warn("maxLength " + std::to_string(*made.high) + " is no size; left out");
    else if (made.low && made.high && *made.low > *made.high)
        warn(std::string(low) + " " + std::to_string(*made.low) + " is more than " + std::string(high) + " " +
             std::to_string(*made.high) + "; left out");
    else
        to->push_back(made);
}

void reader::declare(remarks *about, const attributes &given)
{
    about->version = given.token("version");
    about->status = given.token("status");
    if (about->status == "current")
        about->status.clear();
}

place reader::enter_root(std::string_view name)
{
    std::string_view local = name.substr(name.find(':') + 1);
    std::optional<std::string_view> space = names_.space_of(name);
    bool fits = local == "document" && (space ? space->starts_with(document_namespace) : name.size() > local.size());
    if (!fits)
        fail("not a Broadband Forum data model (its root is \"" + std::string(local) + "\")");
    return place::document;
}

place reader::enter_model(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    model_ = &into_->models.emplace_back();
    model_->line = line();
    model_->name = given.token("name");
    return place::model;
}

place reader::enter_model_part(std::string_view name, const attributes &given)
{
    if (name == "parameter")
        return enter_parameter(&model_->parameters, given);
    return name == "object" ? enter_object(given) : place::ignored;
}

place reader::enter_object(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    object_ = &model_->objects.emplace_back();
    object_->line = line();
    object_->path = given.token("name");
    object_->writable = given.is("access", "readWrite");
    object_->min_entries = given.find("minEntries") ? number(given, "minEntries") : 1;
    if (!given.is("maxEntries", "unbounded"))
        object_->max_entries = given.find("maxEntries") ? number(given, "maxEntries") : 1;
    object_->counter = given.token("numEntriesParameter");
    object_->enabler = given.token("enableParameter");
    declare(&object_->about, given);
    return place::object;
}

place reader::enter_object_part(std::string_view name, const attributes &given)
{
    if (name == "command")
        return enter_command(given);
    if (name == "event")
        return enter_event(given);
    if (name == "uniqueKey" && !given.deleted()) {
        key_ = {{}, !given.is("functional", "false"), line()};
        return place::unique_key;
    }
    if (name == "description")
        return place::description;
    return name == "parameter" ? enter_parameter(&object_->parameters, given) : place::ignored;
}

place reader::enter_command(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    command_ = &object_->commands.emplace_back();
    command_->line = line();
    command_->name = given.token("name");
    if (command_->name.ends_with("()"))
        command_->name.resize(command_->name.size() - 2);
    declare(&command_->about, given);
    return place::command;
}

place reader::enter_event(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    event_ = &object_->events.emplace_back();
    event_->line = line();
    event_->name = given.token("name");
    if (event_->name.ends_with('!'))
        event_->name.pop_back();
    declare(&event_->about, given);
    direction_ = &event_->arguments;
    direction_->push_back({"", {}, line()});
    return place::event;
}

place reader::enter_direction(std::string_view name)
{
    if (name == "description")
        return place::description;
    if (name != "input" && name != "output")
        return place::ignored;
    direction_ = name == "input" ? &command_->input : &command_->output;
    direction_->push_back({"", {}, line()});
    return name == "input" ? place::input : place::output;
}

place reader::enter_argument(std::string_view name, const attributes &given)
{
    if (name == "parameter") // the first group is the one of the arguments that are in no object
        return enter_parameter(&direction_->front().parameters, given);
    if (name != "object" || given.deleted())
        return place::ignored;
    direction_->push_back({given.token("name"), {}, line()});
    return place::argument_object;
}

place reader::enter_named_type(const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    type_name_ = given.token("name");
    auto [at, fresh] = into_->types.try_emplace(type_name_);
    if (!fresh) {
        warn("is declared twice; this declaration is left out");
        type_name_.clear();
        return place::ignored;
    }
    at->second.line = line();
    syntax_ = &at->second.body;
    if (std::string base = given.token("base"); !base.empty()) {
        syntax_->type.emplace();
        syntax_->type->name = "dataType";
        syntax_->type->own_type = base;
    }
    return place::named_type;
}

place reader::enter_parameter(std::vector<parameter_declaration> *list, const attributes &given)
{
    if (given.deleted())
        return place::ignored;
    parameter_ = &list->emplace_back();
    parameter_->line = line();
    parameter_->name = given.token("name");
    // What may be written once, when its object is made, is written like any other.
    parameter_->writable = given.find("access") && !given.is("access", "readOnly");
    parameter_->mandatory = given.truth("mandatory");
    declare(&parameter_->about, given);
    syntax_ = &parameter_->form;
    return place::parameter;
}

place reader::enter_type(std::string_view name, const attributes &given)
{
    if (syntax_->type) {
        warn("a second type, " + std::string(name) + ", where one is expected; left out");
        return place::ignored;
    }
    syntax_->type.emplace();
    syntax_->type->name = name;
    if (name == "dataType")
        syntax_->type->own_type = given.find("ref") ? given.token("ref") : given.token("base");
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
        add_interval(&of->ranges, given, "minInclusive", "maxInclusive");
    else if (name == "size")
        add_interval(&of->sizes, given, "minLength", "maxLength");
    else if (name == "units" && parameter_ != nullptr)
        parameter_->about.units = given.token("value");
    if (name == "pathRef") {
        of->path = true;
        of->target_parents = given.token("targetParent");
        of->target_type = given.token("targetType");
        of->from_root = given.is("targetParentScope", "model");
    }
    if (name == "enumerationRef") {
        of->values_of = given.token("targetParam");
        if (given.find("nullValue"))
            of->null_value = given.text("nullValue");
    }
    return place::ignored; // what is inside these does not matter
}

place reader::enter_syntax(const attributes &given)
{
    // What is hidden reads as nothing, too.
    syntax_->secured = given.truth("secured") || given.truth("hidden");
    syntax_->triggers = given.truth("command");
    return place::syntax;
}

place reader::enter_syntax_part(place parent, std::string_view name, const attributes &given)
{
    if (name == "list" && !given.deleted()) {
        syntax_->list = true;
        syntax_->min_items = number(given, "minItems");
        if (!given.is("maxItems", "unbounded"))
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
}

place reader::enter(place parent, std::string_view name, const attributes &given)
{
    switch (parent) {
    case place::outside:
    case place::description:
    case place::ignored:
        break;
    case place::document:
        return name == "dataType" ? enter_named_type(given) : name == "model" ? enter_model(given) : place::ignored;
    case place::model:
        return enter_model_part(name, given);
    case place::object:
        return enter_object_part(name, given);
    case place::unique_key:
        if (name == "parameter")
            key_.parameters.push_back(given.token("ref"));
        break;
    case place::command:
        return enter_direction(name);
    case place::event:
        if (name == "description")
            return place::description;
        return enter_argument(name, given);
    case place::input:
    case place::output:
        return enter_argument(name, given);
    case place::argument_object:
        return name == "parameter" ? enter_parameter(&direction_->back().parameters, given) : place::ignored;
    case place::parameter:
        if (name == "description")
            return place::description;
        return name == "syntax" ? enter_syntax(given) : place::ignored;
    case place::syntax:
    case place::named_type:
        return enter_syntax_part(parent, name, given);
    case place::list:
        if (name == "size" && !given.deleted())
            add_interval(&syntax_->list_sizes, given, "minLength", "maxLength");
        break;
    case place::type:
        return facet(name, given, &*syntax_->type);
    }
    return place::ignored;
}

// Who uses a prefix that is not declared is told once; the document can be read all the same.
void reader::note_prefixes(std::string_view name, const attributes &given)
{
    if (std::optional<std::string> prefix = names_.undeclared(name))
        warn("the prefix \"" + *prefix + "\" is not declared");
    for (const char **at = given.list; at[0] != nullptr; at += 2)
        if (std::optional<std::string> prefix = names_.undeclared(at[0]))
            warn("the prefix \"" + *prefix + "\" is not declared");
}

void reader::start(std::string_view name, const attributes &given)
{
    names_.open(given.list);
    note_prefixes(name, given);
    if (open_.back() == place::outside) {
        open_.push_back(enter_root(name));
        return;
    }
    std::optional<std::string_view> local = names_.local_name(name);
    open_.push_back(open_.back() == place::ignored || !local ? place::ignored : enter(open_.back(), *local, given));
}

void reader::end_description()
{
    remarks *about = nullptr;
    switch (open_[open_.size() - 2]) {
    case place::object:
        about = &object_->about;
        break;
    case place::parameter:
        about = &parameter_->about;
        break;
    case place::command:
        about = &command_->about;
        break;
    default:
        about = &event_->about;
    }
    if (std::string text = xml_unindented(description_); !text.empty())
        about->description += (about->description.empty() ? "" : "\n\n") + text;
    description_.clear();
}

void reader::end()
{
    switch (open_.back()) {
    case place::description:
        end_description();
        break;
    case place::unique_key:
        if (!key_.parameters.empty())
            object_->keys.push_back(std::move(key_));
        break;
    case place::named_type:
        type_name_.clear();
        break;
    case place::model:
        model_ = nullptr;
        break;
    case place::object:
        object_ = nullptr;
        break;
    case place::command:
        command_ = nullptr;
        break;
    case place::event:
        event_ = nullptr;
        break;
    case place::parameter:
        parameter_ = nullptr;
        break;
    default:
        break;
    }
    open_.pop_back();
    names_.close();
}

bool reader::parse(gzFile file)
{
    constexpr int chunk = 1 << 16;
    for (bool last = false; !last;) {
        void *room = XML_GetBuffer(parser_, chunk);
        if (room == nullptr) {
            *error_ = "out of memory";
            return false;
        }
        int got = gzread(file, room, chunk);
        int problem = Z_OK;
        const char *what = gzerror(file, &problem);
        if (problem == Z_ERRNO)
            *error_ = strerror(errno);
        else if (problem == Z_BUF_ERROR)
            *error_ = "the compressed file ends too early";
        else if (got < 0 || problem < 0)
            *error_ = std::string("the compressed file is damaged (") + what + ")";
        if (!error_->empty())
            return false;
        last = got == 0;
        if (XML_ParseBuffer(parser_, got, last) == XML_STATUS_OK)
            continue;
        if (error_->empty()) // it is not our handlers that stopped
            *error_ = "line " + std::to_string(line()) + ": " + XML_ErrorString(XML_GetErrorCode(parser_)) +
                      (last ? " (the file ends too early)" : "");
        return false;
    }
    return true;
}

bool reader::read(const char *path)
{
    fd_owner descriptor(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!descriptor) {
        *error_ = strerror(errno);
        return false;
    }
    // Reads what is not compressed as it stands.
    std::unique_ptr<gzFile_s, decltype(&gzclose_r)> file(gzdopen(descriptor.get(), "rb"), gzclose_r);
    // Namespaces are ours to look after: the parser's own would refuse a document for a prefix that is not declared.
    std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate(nullptr), XML_ParserFree);
    if (!file || !parser) {
        *error_ = "out of memory";
        return false;
    }
    [[maybe_unused]] int given = descriptor.release(); // to the file
    parser_ = parser.get();
    XML_SetUserData(parser_, this);
    XML_SetElementHandler(
        parser_,
        [](void *self, const char *name, const char **list) {
            static_cast<reader *>(self)->start(name, attributes{list});
        },
        [](void *self, const char *) { static_cast<reader *>(self)->end(); });
    XML_SetCharacterDataHandler(parser_, [](void *self, const char *text, int length) {
        static_cast<reader *>(self)->text({text, size_t(length)});
    });
    if (!parse(file.get()))
        return false;
    std::erase_if(into_->models, [](const model_declaration &model) { return model.objects.empty(); });
    if (into_->models.empty()) {
        *error_ = "not a Broadband Forum data model (it declares no objects)";
        return false;
    }
    return true;
}

} // namespace

bool read_data_model(const char *path, data_model *into, import_warnings *warnings, std::string *error)
{
    error->clear();
    return reader(into, warnings, error).read(path);
}

} // namespace veld
