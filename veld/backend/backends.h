// Several backends as one: each node is the first one's that serves it.
#pragma once

#include "veld/backend/backend.h"

#include <map>

namespace veld
{

class backends : public device_backend
{
public:
    /// `each` in the order in which they are asked; borrowed.
    explicit backends(std::vector<device_backend *> each) : each_(std::move(each)) {}

    bool knows(backend_use use, std::string_view name) const override;
    backend_part serves(backend_use use, const scheme &what, const std::string &path) override;
    json_ref read(const scheme &what, const std::string &path) override;
    json_ref rows(const scheme &what, const std::string &path) override;
    fault apply(const std::vector<backend_change> &changes, size_t *which) override;
    std::unique_ptr<job> run(const scheme &what, const std::string &path, const json_t *input,
                             const std::function<std::string(std::string_view)> &text_of, job_outcome *ended) override;
    void announced(const std::string &action) override;
    bool does(backend_deed deed) const override { return doer(deed) != nullptr; }
    std::string flashed_version() override;
    fault examine(firmware_image *image) override;
    std::unique_ptr<job> flash(const firmware_image &image, const progress_handler &progress) override;
    std::unique_ptr<job> reboot(const std::string &action) override;

private:
    device_backend *behind(backend_use use, const scheme &what) const;
    device_backend *doer(backend_deed deed) const;

    std::vector<device_backend *> each_;
    std::map<std::pair<const scheme *, backend_use>, device_backend *> behind_;
};

} // namespace veld
