#include "veld/model/secret.h"

namespace veld
{

json_ref readable_value(tree *from, node *parameter, role who)
{
    const scheme &what = *parameter->what;
    if (!what.secret || who == role::administrator)
        return from->value(parameter);
    return json_is_string(what.initial.get()) ? json_ref{json_string("")} : json_ref::share(what.initial.get());
}

} // namespace veld
