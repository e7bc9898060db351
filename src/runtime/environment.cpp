#include "runtime/environment.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

#include "runtime/fpmode.h"
#include "runtime/progress.h"
#include "runtime/trace.h"
#include "image/dispatch.h"
#include "qxiveilon31.h"

namespace qx {
namespace {

constexpr const char* kOocPath = "MKL_PARDISO_OOC_PATH";
constexpr const char* kOocMaxCoreSize = "MKL_PARDISO_OOC_MAX_CORE_SIZE";
constexpr const char* kOocKeepFile = "MKL_PARDISO_OOC_KEEP_FILE";

char savedOocPath[1024];
char savedOocMaxCoreSize[128];
char savedOocKeepFile[128];
char tempPath[10000];
int oocReadyFlag = 0;

// Copies a variable into a buffer of which `used` bytes are used; empty when unset or empty.
void readVar(const char* name, char* buffer, size_t used) {
    buffer[0] = '\0';
    const char* value = std::getenv(name);
    if (value && value[0] != '\0') {
        std::strncpy(buffer, value, used - 1);
        buffer[used - 1] = '\0';
    }
}

// The system's temporary directory with a trailing slash; the length, or 0 on failure.
size_t readTempPath(char* buffer, size_t size) {
    std::error_code ec;
    const std::filesystem::path p = std::filesystem::temp_directory_path(ec);
    if (ec) return 0;
    std::string s = p.string();
    if (s.empty() || s.size() + 2 > size) return 0;
    if (s.back() != '/') s.push_back('/');
    std::memcpy(buffer, s.c_str(), s.size() + 1);
    return s.size();
}

// Puts back what the process had. The keep-file variable is restored under the path's test,
// not its own: a process that had a path gets its keep-file value back even when that is empty.
void restoreSaved() {
    if (savedOocPath[0] != '\0') setenv(kOocPath, savedOocPath, 1);
    if (savedOocMaxCoreSize[0] != '\0') setenv(kOocMaxCoreSize, savedOocMaxCoreSize, 1);
    if (savedOocPath[0] != '\0') setenv(kOocKeepFile, savedOocKeepFile, 1);
}

}  // namespace

int setQXEnvVars() {
    oocReadyFlag = 0;
    readVar(kOocPath, savedOocPath, 1000);
    readVar(kOocMaxCoreSize, savedOocMaxCoreSize, 100);
    readVar(kOocKeepFile, savedOocKeepFile, 100);
    const size_t tempLength = readTempPath(tempPath, sizeof tempPath);
    if (savedOocPath[0] == '\0') {
        if (tempLength < 1) return 1;
        setenv(kOocPath, tempPath, 1);
        setenv(kOocMaxCoreSize, "1500", 1);
        setenv(kOocKeepFile, "0", 1);
    }
    oocReadyFlag = 1;
    return 1;
}

int restoreQXEnvVars() {
    restoreSaved();
    return 1;
}

int oocReady() { return oocReadyFlag; }

int libraryEntry(int reason) {
    if (reason == 1) {
        setTrace(0, nullptr);
        setQXEnvVars();
        initProgProc();
        traceInt("ippStaticInit", prim::cpuFeatureLevel());
        traceInt("ippStaticInit", prim::selectCodePath());
        // Denormals are flushed per call on the threads that do the work (FpModeGuard), so that
        // loading the library leaves the host thread's floating-point mode alone.
    } else if (reason == 0) {
        restoreSaved();
    }
    return 1;
}

}  // namespace qx

extern "C" {

QX_API int qxSetupLib(int traceMask, const char* traceDir) {
    if (traceMask < 0) return 0;
    return qx::setTrace(static_cast<unsigned>(traceMask), traceDir);
}

QX_API int setDebugTrace(unsigned traceMask, const char* traceDir) {
    return qx::setTrace(traceMask, traceDir);
}

}  // extern "C"
