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

// The service refuses or cancels before the tool starts and never tells how the tool ended.
ElevatedRun qm_authorized_run(const char* tool, const char* arg1, const char* arg2) {
    ElevatedRun run;
    run.status = qm_authorized_exec(tool, arg1, arg2, &run.output);
    if (run.status == 0 && !run.output) run.status = kAuthDenied;
    run.ended = [](bool) { return 0; };
    return run;
}

ElevatedRun qm_exec_through(const char*, const char* tool, const char* arg1, const char* arg2) {
    return qm_authorized_run(tool, arg1, arg2);
}

QString platformName() { return QStringLiteral("macOS"); }

QString unmountAdvice() { return QStringLiteral("Unmount the drive in Disk Utility and try again."); }
