// The writer started through the Security framework's authorisation service, which shows the
// administrator password prompt and hands back a stream on the tool's output.
#include <Security/Security.h>

#include "launcher.h"

extern "C" int qm_authorized_exec(const char* tool, const char* arg1, const char* arg2, FILE** output) {
    AuthorizationRef ref = nullptr;
    OSStatus status = AuthorizationCreate(nullptr, kAuthorizationEmptyEnvironment, kAuthorizationFlagDefaults, &ref);
    if (status != errAuthorizationSuccess) return int(status);
    char* args[] = {const_cast<char*>(arg1), const_cast<char*>(arg2), nullptr};
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
    status = AuthorizationExecuteWithPrivileges(ref, tool, kAuthorizationFlagDefaults, args, output);
#pragma clang diagnostic pop
    AuthorizationFree(ref, kAuthorizationFlagDefaults);
    return int(status);
}

int qm_exec_through(const char*, const char* tool, const char* arg1, const char* arg2, FILE** output) {
    return qm_authorized_exec(tool, arg1, arg2, output);
}

QString platformName() { return QStringLiteral("macOS"); }
