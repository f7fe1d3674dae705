#include "platform/ve_history.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "vebase/editor/history_files.h"

void ve_history::add(std::string_view entry)
{
    starts_.push_back(texts_.size());
    std::copy_if(entry.begin(), entry.end(), std::back_inserter(texts_), [](char byte) { return byte != '\0'; });
    texts_.push_back('\0');
}

std::string_view ve_history::entry(size_t index) const
{
    const size_t end = index + 1 < starts_.size() ? starts_[index + 1] : texts_.size();
    return {texts_.data() + starts_[index], end - starts_[index] - 1};
}

std::string ve_history::script(size_t first) const
{
    std::string text;
    for (size_t i = first; i < size(); ++i)
        text.append(entry(i)).push_back('\n');
    return text;
}

void ve_history::parse(std::string content)
{
    content.push_back('\n');
    texts_ = std::move(content);
    // In place: no entry is longer than its line.
    char *const texts = texts_.data();
    std::string entry;
    size_t filled = 0;
    for (size_t at = 0; at < texts_.size();) {
        const size_t size = texts_.find('\n', at) - at;
        const std::string_view line(texts + at, size);
        at += size + 1;
        if (line.empty())
            continue;
        starts_.push_back(filled);
        if (history_is_plain(line)) {
            memmove(texts + filled, line.data(), size);
            filled += size;
        } else {
            history_decode(line, entry);
            std::erase(entry, '\0');
            memcpy(texts + filled, entry.data(), entry.size());
            filled += entry.size();
        }
        texts[filled++] = '\0';
    }
    texts_.resize(filled);
}

void ve_history::warn(const char *path, const char *reason)
{
    if (!warned_)
        fprintf(stderr, "%s: %s, the history there is left alone.\n", path, reason);
    warned_ = true;
}

int ve_history::load(const char *path)
{
    std::string content;
    const char *reason = nullptr;
    const bool usable = history_read(path, content, &reason);
    if (!usable)
        warn(path, reason);
    ve_history now;
    now.warned_ = warned_;
    if (usable) {
        now.path_ = path;
        now.parse(std::move(content));
    }
    now.saved_ = now.size();
    for (size_t i = saved_; i < size(); ++i)
        now.add(entry(i));
    *this = std::move(now);
    return usable ? 0 : -1;
}

int ve_history::save()
{
    if (path_.empty())
        return -1;
    const history_lock lock(path_.c_str());
    if (lock.is_held())
        history_remove_leftovers(path_.c_str());
    std::string content;
    const char *reason = nullptr;
    if (!history_read(path_.c_str(), content, &reason)) {
        warn(path_.c_str(), reason);
        return -1;
    }
    ve_history now;
    now.parse(history_newest(content, ve_history_file_max));
    // Where there is no history any more, the one that was there at the load comes back.
    for (size_t i = now.size() == 0 ? 0 : saved_; i < size(); ++i)
        now.add(entry(i));
    content.clear();
    for (size_t i = now.size() - std::min(now.size(), ve_history_file_max); i < now.size(); ++i)
        history_encode(now.entry(i), content);
    if (!history_replace(path_.c_str(), content)) {
        warn(path_.c_str(), strerror(errno));
        return -1;
    }
    saved_ = size();
    return 0;
}
