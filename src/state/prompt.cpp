#include "state/prompt.h"

#include <cstdio>
#include <cstring>

#include "cdpath/cdpath.h"
#include "event/request.h"
#include "platform/ve_string.h"

namespace
{

// Too long a login, path or mode word is cut here, for the eye only.
char prompt[384] = "kest:> ";
char prompt_postfix[16];

/// Takes the last character off a cut text when only a part of it is left.
void drop_partial_character(char *text)
{
    size_t last = strlen(text);
    while (last > 0 && (static_cast<unsigned char>(text[--last]) & 0xc0U) == 0x80)
        ;
    if (!ve_string_is_utf8(text + last))
        text[last] = '\0';
}

} // namespace

void prompt_update_path()
{
    const bool logged_in = saved_login != nullptr && saved_login[0] != '\0';
    const int size = snprintf(prompt, sizeof prompt, "%s%skest%s:%s> ", logged_in ? saved_login : "",
                              logged_in ? "@" : "", prompt_postfix, cwd.path);
    if (size >= static_cast<int>(sizeof prompt))
        drop_partial_character(prompt);
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
