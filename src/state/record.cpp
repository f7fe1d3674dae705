#include "state/record.h"

#include <algorithm>
#include <cstddef>

#include "state/editor.h"
#include "state/prompt.h"

namespace
{

struct {
    bool active = false;
    std::string file;
    size_t count = 0; // lines of the shell that were run since it began
} recording;

} // namespace

void record_start(const char *file)
{
    recording = {.active = true, .file = file};
    prompt_update_postfix("record");
}

void record_increment()
{
    ++recording.count;
}

bool record_check()
{
    return recording.active;
}

void record_abort()
{
    recording.active = false;
    prompt_update_postfix(nullptr);
}

void record_commit(std::string_view behind)
{
    const ve_history &lines = shell_history();
    std::string script = lines.script(lines.size() - std::min(recording.count, lines.size()));
    ve_history_write_script(recording.file.c_str(), script.append(behind));
    record_abort();
}
