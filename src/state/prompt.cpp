#include "state/prompt.h"

#include <cstdio>

#include "cdpath/cdpath.h"
#include "event/request.h"

namespace
{

// Too long a login, path or mode word is cut here, for the eye only.
char prompt[384] = "kest:> ";
char prompt_postfix[16];

} // namespace

void prompt_update_path()
{
    const bool logged_in = saved_login != nullptr && saved_login[0] != '\0';
    snprintf(prompt, sizeof prompt, "%s%skest%s:%s> ", logged_in ? saved_login : "", logged_in ? "@" : "",
             prompt_postfix, cwd.path);
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
        snprintf(prompt, sizeof prompt, "> ");
    else
        prompt_update_path();
}

const char *prompt_get()
{
    return prompt;
}
