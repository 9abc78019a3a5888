// The platform's list of mounted volumes, through Qt's storage listing on every platform.
#include <QStorageInfo>

#include "volumes.h"

namespace Volumes {

QList<Mount> mounted() {
    QList<Mount> out;
    for (const QStorageInfo& s : QStorageInfo::mountedVolumes()) {
        if (!s.isValid() || !s.isReady()) continue;
        out.append(Mount{s.rootPath(), s.displayName() == s.rootPath() ? QString() : s.displayName()});
    }
    return out;
}

}  // namespace Volumes
