#include "veld/model/document.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace veld
{

namespace
{

json_ref read_file(const std::string &path, bool *there, std::string *error)
{
    *there = access(path.c_str(), F_OK) == 0;
    if (!*there) {
        *error = path + ": " + strerror(errno);
        return {};
    }
    json_error_t where{};
    json_ref document{json_load_file(path.c_str(), JSON_REJECT_DUPLICATES, &where)};
    if (!document)
        *error = path + ":" + std::to_string(where.line) + ":" + std::to_string(where.column) + ": " + where.text;
    return document;
}

// Models are installed beside the program: PREFIX/sbin/veld, PREFIX/share/kest/models.
std::string installed_models()
{
    char program[4096];
    const ssize_t length = readlink("/proc/self/exe", program, sizeof program);
    std::string folder(program, length > 0 ? static_cast<size_t>(length) : 0);
    for (int up = 0; up < 2 && !folder.empty(); ++up)
        folder.erase(folder.find_last_of('/'));
    return folder + "/share/kest/models/";
}

bool is_file(const std::string &path)
{
    return path.ends_with(".json");
}

} // namespace

json_ref document_read(const std::string &name, std::string *error)
{
    std::vector<std::string> paths;
    const std::string file = is_file(name) ? name : name + ".json";
    if (is_file(name))
        paths = {name};
    else
        paths = {file, name};
    if (name.find('/') == std::string::npos)
        paths.push_back(installed_models() + file);
    std::string first;
    for (const std::string &path : paths) {
        bool there = false;
        json_ref document = read_file(path, &there, error);
        if (there)
            return document;
        if (first.empty())
            first = *error;
    }
    *error = first;
    return {};
}

std::unique_ptr<tree> document_tree(json_t *document, device_backend *behind, std::string *error)
{
    std::unique_ptr<scheme> model = scheme_load(document, error, behind);
    if (model && behind != nullptr)
        scheme_bind(model.get(), behind);
    return model ? tree::make(std::move(model), behind, error) : nullptr;
}

} // namespace veld
