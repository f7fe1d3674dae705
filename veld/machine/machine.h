// The machine that the daemon runs on, as what stands behind a model: its live values, and the methods that it has.
#pragma once

#include "veld/backend/backend.h"

namespace veld
{

class machine_backend : public device_backend
{
public:
    bool knows(backend_use use, std::string_view name) const override;
    backend_part serves(backend_use use, const scheme &what, const std::string &path) override;
    json_ref read(const scheme &what, const std::string &path) override;
    json_ref rows(const scheme &what, const std::string &path) override;
    fault apply(const std::vector<backend_change> &changes, size_t *which) override;
    std::unique_ptr<job> run(const scheme &what, const std::string &path, const json_t *input,
                             const std::function<std::string(std::string_view)> &text_of, job_outcome *ended) override;
    void announced(const std::string &action) override;
};

} // namespace veld
