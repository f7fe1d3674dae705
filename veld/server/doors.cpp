#include "veld/server/doors.h"

#include "veld/base/log.h"

namespace veld
{

namespace
{

constexpr int64_t retry_ms = 200;

} // namespace

bool doors::open(std::string *error)
{
    for (const auto &one : listeners_) {
        if (!one->open(error))
            return false;
        LOG_INFO("listening on %s", one->address().c_str());
    }
    return true;
}

void doors::reopen()
{
    retry_ = 0;
    bool all = true;
    for (const auto &one : listeners_) {
        std::string error;
        if (!one->is_open() && !one->open(&error)) {
            LOG_ERROR("%s; trying again", error.c_str());
            all = false;
        }
    }
    if (!all)
        retry_ = loop_.after(retry_ms, [this] { reopen(); });
}

void doors::close()
{
    if (retry_ != 0)
        loop_.cancel(retry_);
    retry_ = 0;
    for (const auto &one : listeners_)
        one->close();
}

} // namespace veld
