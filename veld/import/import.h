// `veld --import`: a Broadband Forum data-model XML document becomes a model document.
#pragma once

#include "base/json_ref.h"
#include "veld/import/data_model.h"

#include <string>

namespace veld
{

/// How many of each a model document that was imported has.
struct import_counts {
    size_t objects = 0; ///< tables among them
    size_t tables = 0;
    size_t parameters = 0;
    size_t commands = 0;
    size_t inputs = 0;
    size_t outputs = 0;
    size_t events = 0;
};

/// The model document of the XML file `path`, plain or compressed with gzip, which the daemon can serve; null when
/// there is none, `*error` then says what is wrong and where. `name` chooses one of several models in it, "Device:1.7"
/// or "Device"; empty: all of them. `*warnings` receives what had to be left out.
json_ref import_model(const char *path, const std::string &name, import_counts *counts, import_warnings *warnings,
                      std::string *error);

/// What `veld --import` does: writes the document of the file `path` to the file `output`, or to standard output when
/// that is empty, and what it counted and left out to standard error. Nothing is written unless everything can be.
/// Returns the exit status.
int import_run(const char *path, const std::string &name, const std::string &output);

} // namespace veld
