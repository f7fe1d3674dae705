#include "shell/completion.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

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

/// Appends those of `words` ("|" between) that begin with `word`.
void append_words(std::string_view words, std::string_view word, json_t *candidates)
{
    for (size_t begin = 0; begin < words.size();) {
        const size_t end = std::min(words.find('|', begin), words.size());
        const std::string_view each = words.substr(begin, end - begin);
        if (each.starts_with(word))
            json_array_append_new(candidates, json_stringn(each.data(), each.size()));
        begin = end + 1;
    }
}

completed_part complete_argument(const cmd_argument &argument, const std::string &word, json_t *candidates)
{
    append_words(argument.words, word, candidates);
    switch (argument.kind) {
    case argument_kind::object:
    case argument_kind::node:
        return complete_path(word.c_str(), candidates, argument.kind == argument_kind::object);
    case argument_kind::file:
        return complete_file(word, candidates);
    case argument_kind::program:
        return complete_program(word, candidates);
    case argument_kind::other:
        break;
    }
    return {0, false};
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
        const cmd_arguments &all = command->arguments;
        part = complete_argument(all[std::min(line.index, all.size()) - 1], word, candidates);
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
