#include "shell/completion.h"

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>

#include "dispatch/table.h"
#include "event/request.h"
#include "platform/ve_json.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "platform/ve_words.h"
#include "shell/completers.h"
#include "utils/json_util.h"

namespace
{

/// Keeps requests from reconnecting while the editor waits for its callback.
class no_reconnect
{
public:
    no_reconnect() : before_(msg_allow_reconnect(false)) {}
    ~no_reconnect() { msg_allow_reconnect(before_); }
    no_reconnect(const no_reconnect &) = delete;
    no_reconnect &operator=(const no_reconnect &) = delete;

private:
    bool before_;
};

void append_keywords(std::initializer_list<const char *> keywords, const char *word, json_t *candidates)
{
    const size_t length = word != nullptr ? strlen(word) : 0;
    for (const char *keyword : keywords) {
        if (length == 0 || strncmp(keyword, word, length) == 0)
            json_array_append_new(candidates, json_string(keyword));
    }
}

/// The arguments of the command with identifier `id`: word `index` of the line, which is `word` (null: not yet begun).
completed_part complete_argument(uint32_t id, size_t index, const char *word, json_t *candidates)
{
    constexpr completed_part nothing = {0, false};
    constexpr completed_part sorted_word = {0, true};
    switch (id) {
    case 1:  // add, touch
    case 4:  // cd
    case 31: // take
    case 32: // tree
        return complete_path(word, candidates, true);
    case 2: // cat, get
    case 3: // catree
    case 7: // del, rm
    case 9:
    case 13: // attr, info
    case 18: // ls
    case 29: // set
    case 35: // execute
        return complete_path(word, candidates, false);
    case 22: // order
        return index == 1 ? complete_path(word, candidates, false) : nothing;
    case 6: // color
        if (index == 1)
            append_keywords({"prompt", "autocomplete", "hint"}, word, candidates);
        return nothing;
    case 8: // download
        if (index == 1)
            append_keywords({"config", "file", "firmware"}, word, candidates);
        return index == 2 ? complete_file(word, candidates) : sorted_word;
    case 20: // luarecord
    case 25: // record
        if (index != 1)
            return nothing;
        append_keywords({"abort"}, word, candidates);
        return complete_file(word, candidates);
    case 21: // opt
        if (index == 1)
            append_keywords({"autocomplete", "hint"}, word, candidates);
        else if (index == 2)
            append_keywords({"on", "off"}, word, candidates);
        return sorted_word;
    case 30: // sh
        return index < 2 ? complete_program(word, candidates) : complete_file(word, candidates);
    case 34: // upgrade
        return complete_file(word, candidates);
    default:
        return nothing;
    }
}

/// The candidates for the word that ends `text`, in no particular order when the part says that they are to be sorted.
/// The part's begin is a byte of `text`.
completed_part complete(const std::string &text, json_t *candidates)
{
    const ve_words line = ve_words_read(text);
    completed_part part = {line.place(0), false};
    if (line.comment || !ve_words_are_utf8(line.words))
        return part;
    const std::string word(line.current());
    if (line.index == 0) {
        autocomplete_command(word.c_str(), candidates);
        return part;
    }
    const cmd_entry *command = parse_cmd(line.words[0].c_str());
    if (command == nullptr)
        return part;
    {
        const no_reconnect guard;
        part = complete_argument(command->id, line.index, word.c_str(), candidates);
    }
    // Ctrl-C while the daemon was asked: what was found so far is not all.
    if (ve_wait_interrupted())
        json_array_clear(candidates);
    return {line.place(part.begin), part.sort};
}

} // namespace

void shell_autocomplete(const char *line, size_t cursor, json_t *candidates)
{
    const std::string text(line, std::min(cursor, strlen(line)));
    const completed_part part = complete(text, candidates);
    if (part.sort)
        json_array_sort(candidates);
    ve_rl_set_completion_start(part.begin);
}

char *shell_hint(const char *line)
{
    if (line[0] == '\0')
        return nullptr;
    const std::string text(line);
    const json_ref candidates(json_array());
    const size_t begin = complete(text, candidates.get()).begin;
    if (json_array_size(candidates.get()) != 1)
        return nullptr;
    // Nothing can be hinted at when Tab would replace what was typed, escapes say, by something else.
    const char *candidate = json_string_value(json_array_get(candidates.get(), 0));
    const size_t typed = text.size() - begin;
    return strncmp(candidate, line + begin, typed) == 0 ? strdup(candidate + typed) : nullptr;
}

void completion_begin_line()
{
    complete_program_forget();
}
