#include "state/scheme.h"

#include "cdpath/cdpath.h"
#include "state/prompt.h"

json_t *reload_dm()
{
    json_decref(dm);
    dm = json_object();
    cdpath_clear(&cwd);
    prompt_update_path(); // before Ctrl-C can leave the fetch
    cdpath_fetch(&cwd);
    json_object_del(dm, "DataModelVersion"); // a parameter of the root, but no node of the tree
    return dm;
}
