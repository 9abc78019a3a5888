// macOS: a disk's volumes are not looked up yet, so no writing is found on a stick and the
// Install tab asks and erases as it always has.
#include "stick_mounts.h"

namespace {

class MacStickMounts final : public StickMounts {
public:
    QList<Volumes::Mount> mounted(const QString&) override { return {}; }
    std::optional<QString> dataRoot(const QString&) override { return std::nullopt; }
    std::optional<QString> mountData(const QString&) override { return std::nullopt; }
};

}  // namespace

std::unique_ptr<StickMounts> StickMounts::platform() { return std::make_unique<MacStickMounts>(); }
