// Whether a value fits what the model says about its parameter.
#pragma once

#include "veld/base/fault.h"
#include "veld/model/scheme.h"

#include <string>
#include <vector>

namespace veld
{

/// True when `value` has the JSON type of the parameter's values; `*kept` then owns the value as it is to be stored
/// (an integer given for a decimal becomes a real one, digits that fit a signed word become an integer).
bool value_fits_type(const scheme &what, json_t *value, json_ref *kept);

/// Checks everything that one value alone can violate: type, enumeration, range, length, pattern and the type's own
/// form. The message is a phrase about the parameter.
fault value_check(const scheme &what, json_t *value, json_ref *kept);

/// Checks a factory value, which fulfils the constraints like any; the default needs no second look, and a password's
/// hash is no password.
fault factory_value_check(const scheme &what, json_t *value);

/// The items of a list that is kept as one text, without the blanks around them; none of an empty text.
std::vector<std::string_view> list_items(std::string_view text);

/// The number of characters of a UTF-8 text.
size_t text_length(std::string_view text);

} // namespace veld
