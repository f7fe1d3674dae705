#include "state/prompt.h"

#include <cstdio>
#include <string>

#include "base/utf8.h"
#include "cdpath/cdpath.h"
#include "event/request.h"

namespace
{

// Too long a login, path or mode word is cut here, for the eye only.
constexpr size_t prompt_size = 383;

struct {
    std::string text = "kest:> ";
    char postfix[16] = "";
} prompt;

} // namespace

void prompt_update_path()
{
    const std::string &user = saved_login().user;
    prompt.text = user + (user.empty() ? "kest" : "@kest") + prompt.postfix + ":" + cwd.text() + "> ";
    prompt.text.resize(utf8_cut(prompt.text, prompt_size));
}

void prompt_update_postfix(const char *word)
{
    if (word != nullptr)
        snprintf(prompt.postfix, sizeof prompt.postfix, "-%s", word);
    else
        prompt.postfix[0] = '\0';
    prompt_update_path();
}

void prompt_set_incompleted(int flag)
{
    if (flag != 0)
        prompt.text = "> ";
    else
        prompt_update_path();
}

const char *prompt_get()
{
    return prompt.text.c_str();
}
