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
std::string prompt = "kest:> ";
char prompt_postfix[16];

} // namespace

void prompt_update_path()
{
    const std::string &user = saved_login().user;
    prompt = user + (user.empty() ? "kest" : "@kest") + prompt_postfix + ":" + cwd.text() + "> ";
    prompt.resize(utf8_cut(prompt, prompt_size));
}

void prompt_update_postfix(const char *word)
{
    if (word != nullptr)
        snprintf(prompt_postfix, sizeof prompt_postfix, "-%s", word);
    else
        prompt_postfix[0] = '\0';
    prompt_update_path();
}

void prompt_set_incompleted(int flag)
{
    if (flag != 0)
        prompt = "> ";
    else
        prompt_update_path();
}

const char *prompt_get()
{
    return prompt.c_str();
}
