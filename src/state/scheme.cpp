#include "state/scheme.h"

#include "cdpath/cdpath.h"
#include "event/reconnect.h"
#include "state/prompt.h"

void reload_dm()
{
    // Whether the scheme tells what is typed is not for a lost link to decide: what a run does without it, it does
    // without it to its end.
    const bool aside = dm == nullptr && reconnect_under_way();
    dm = std::make_shared<dm_node>();
    cwd = dm_path();
    prompt_update_path(); // before Ctrl-C can leave the fetch
    cdpath root = cdpath_here();
    cdpath_fetch(&root);
    if (aside)
        dm = nullptr;
}
