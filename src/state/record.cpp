#include "state/record.h"

#include <cstdint>
#include <cstdio>

#include "platform/ve_history.h"
#include "state/prompt.h"

namespace
{

char record_file[256];
uint8_t record_mode = 0;
uint32_t record_count = 0; // lines run since the recording began

} // namespace

void record_start(const char *file)
{
    record_mode = 1;
    record_count = 0;
    snprintf(record_file, sizeof record_file, "%s", file);
    ve_history_mark();
    prompt_update_postfix("record");
}

void record_increment()
{
    ++record_count;
}

int record_check()
{
    return record_mode;
}

void record_abort()
{
    record_mode = 0;
    prompt_update_postfix(nullptr);
}

void record_commit()
{
    ve_history_dump(record_file, static_cast<int>(record_count));
    record_abort();
}
