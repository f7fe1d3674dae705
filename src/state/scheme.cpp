#include "state/scheme.h"

#include "cdpath/cdpath.h"
#include "state/prompt.h"

void reload_dm()
{
    dm = std::make_shared<dm_node>();
    cwd = dm_path();
    prompt_update_path(); // before Ctrl-C can leave the fetch
    cdpath root = cdpath_here();
    cdpath_fetch(&root);
}
