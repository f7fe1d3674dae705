// Devices in a file: whatever the program says, it is refused with a message, or it serves a model and is asked
// everything.
#include "base/fd.h"
#include "veld/behaviour/behaviour.h"
#include "veld/model/change.h"
#include "veld/model/document.h"
#include "veld/model/query.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>

using namespace veld;

namespace
{

constexpr const char *model_text = R"json({"format": 1, "root": {"D": {"children": {
  "A": {"type": "int", "access": "readWrite", "default": 1},
  "S": {"type": "string", "access": "readWrite", "default": "s"},
  "T": {"multi": true, "access": "readWrite", "template": {"access": "readWrite", "children": {
    "U": {"type": "unsignedInt", "access": "readWrite", "default": 1}}}, "instances": {"1": {"U": 1}}},
  "M": {"type": "method", "input": {"I": {"type": "int", "default": 1}},
    "output": {"R": {"type": "string", "default": ""}}}
}}}})json";

/// The device of a daemon, as far as a program can tell.
class device
{
public:
    explicit device(std::unique_ptr<behaviour> program) : program_(std::move(program)) {}

    bool begin()
    {
        std::string error;
        const json_ref document{json_loads(model_text, 0, nullptr)};
        model_ = document_tree(document.get(), program_.get(), &error);
        if (!model_ || !program_->fits(&error)) {
            if (error.empty())
                abort();
            return false;
        }
        program_->connect({
            .begin = [] {},
            .get = [this](const std::string &path) { return value_at(model_.get(), path); },
            .set =
                [this](const std::string &path, json_t *value) {
                    value_change done;
                    return value_put(model_.get(), path, value, &done);
                },
            .event = [](int64_t, json_t *) {},
            .after =
                [this](int64_t, std::function<void()> call) {
                    timers_.push_back(std::move(call));
                    return static_cast<uint64_t>(timers_.size());
                },
            .cancel = [this](uint64_t timer) { timers_[timer - 1] = nullptr; },
        });
        return true;
    }

    void ask()
    {
        std::string out;
        const answer_text answer{&out, size_t{1} << 20};
        const json_ref names{json_loads(R"(["D."])", 0, nullptr)};
        query_values(model_.get(), role::administrator, names.get(), answer);
        for (const char *list : {R"([{"Name": "D.A", "Value": 7}])", R"([{"Name": "D.S", "Value": "x"}])",
                                 R"([{"Name": "D.A", "Value": 8}, {"Name": "D.T.1.U", "Value": 9}])"}) {
            const json_ref values{json_loads(list, 0, nullptr)};
            std::vector<value_change> changes;
            change_values(model_.get(), role::administrator, values.get(), &changes);
        }
        const json_ref input{json_loads(R"({"I": 1})", 0, nullptr)};
        const auto text_of = [](std::string_view) { return std::string("text"); };
        job_outcome ended;
        const scheme &method = *model_->find("D.M").what;
        if (program_->serves(backend_use::run, method, "D.M") != backend_part::none)
            program_->run(method, "D.M", input.get(), text_of, &ended);
        for (size_t i = 0; i < timers_.size() && i < 4; ++i)
            if (const auto call = std::move(timers_[i]))
                call();
        firmware_image image{"/dev/null", "beginning", ""};
        if (program_->does(backend_deed::examine))
            program_->examine(&image);
        if (program_->does(backend_deed::flash))
            program_->flash(image, [](int) {});
        program_->announced("Reboot");
    }

private:
    std::vector<std::function<void()>> timers_;
    std::unique_ptr<behaviour> program_; // cancels its timers when it goes
    std::unique_ptr<tree> model_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static const int file = memfd_create("behaviour", MFD_CLOEXEC);
    static const std::string path = "/proc/self/fd/" + std::to_string(file);
    if (ftruncate(file, 0) != 0 || pwrite(file, data, size, 0) != static_cast<ssize_t>(size))
        abort();
    std::string error;
    auto program = behaviour::load(path, false, &error);
    if (!program) {
        if (error.empty())
            abort();
        return 0;
    }
    device here(std::move(program));
    if (here.begin())
        here.ask();
    return 0;
}
