#include "veld/model/secret.h"

namespace veld
{

json_ref readable_value(tree *from, node *parameter, role who)
{
    const scheme &what = *parameter->what;
    // What a password was turned into is for nobody: it can be guessed at in peace.
    if (what.handler_set == "password")
        return json_ref{json_string("")};
    if (!what.secret || who == role::administrator)
        return from->value(parameter);
    return json_is_string(what.initial.get()) ? json_ref{json_string("")} : json_ref::share(what.initial.get());
}

} // namespace veld
