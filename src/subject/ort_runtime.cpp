// ONNX Runtime, opened at run time through its C API (see ort_runtime.h for why and when).
//
// The runtime ships no header we could build against, so the few parts of its C API used here
// are declared below from its published onnxruntime_c_api.h (Copyright (c) Microsoft
// Corporation, MIT licence). The API is one table of function pointers that only ever grows at
// its end, so a slot's index names the same function in every version; the indices are that
// header's order, and open() checks the table behaves before using it.
#include "subject/ort_runtime.h"

#include <dlfcn.h>
#include <sched.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <type_traits>
#include <vector>

#include "subject/cache_folder.h"

namespace qx::subject::ort {
namespace {

// The runtime's objects, opaque to us.
struct OrtStatus;
struct OrtEnv;
struct OrtSession;
struct OrtSessionOptions;
struct OrtMemoryInfo;
struct OrtValue;
struct OrtTensorTypeAndShapeInfo;
struct OrtAllocator;

// The values of the runtime's enumerations that are passed here.
constexpr int kInvalidArgument = 2;  // OrtErrorCode ORT_INVALID_ARGUMENT
constexpr int kLogFatal = 4;         // OrtLoggingLevel ORT_LOGGING_LEVEL_FATAL
constexpr int kOptimiseAll = 99;     // GraphOptimizationLevel ORT_ENABLE_ALL
constexpr int kFloat = 1;            // ONNXTensorElementDataType FLOAT
constexpr int kArenaAllocator = 1;   // OrtAllocatorType OrtArenaAllocator
constexpr int kMemTypeDefault = 0;   // OrtMemType OrtMemTypeDefault

// The API version asked for: that of ONNX Runtime 1.16, which has every slot below; a newer
// runtime serves an older version's table as well.
constexpr uint32_t kApiVersion = 16;

using Slot = void (*)();
struct OrtApiBase {
    const Slot* (*GetApi)(uint32_t version) noexcept;
    const char* (*GetVersionString)() noexcept;
};

// The functions used, each with its slot in the runtime's table.
struct Api {
    OrtStatus* (*CreateStatus)(int code, const char* message);                       // 0
    int (*GetErrorCode)(const OrtStatus* status);                                     // 1
    const char* (*GetErrorMessage)(const OrtStatus* status);                          // 2
    OrtStatus* (*CreateEnv)(int logLevel, const char* logId, OrtEnv** out);           // 3
    OrtStatus* (*CreateSession)(const OrtEnv* env, const char* modelPath,
                                const OrtSessionOptions* options, OrtSession** out);  // 7
    OrtStatus* (*Run)(OrtSession* session, const void* runOptions,
                      const char* const* inputNames, const OrtValue* const* inputs,
                      size_t inputCount, const char* const* outputNames, size_t outputCount,
                      OrtValue** outputs);                                            // 9
    OrtStatus* (*CreateSessionOptions)(OrtSessionOptions** out);                      // 10
    OrtStatus* (*DisableMemPattern)(OrtSessionOptions* options);                      // 17
    OrtStatus* (*DisableCpuMemArena)(OrtSessionOptions* options);                     // 19
    OrtStatus* (*SetSessionGraphOptimizationLevel)(OrtSessionOptions* options,
                                                   int level);                        // 23
    OrtStatus* (*SetIntraOpNumThreads)(OrtSessionOptions* options, int threads);      // 24
    OrtStatus* (*SetInterOpNumThreads)(OrtSessionOptions* options, int threads);      // 25
    OrtStatus* (*SessionGetInputName)(const OrtSession* session, size_t index,
                                      OrtAllocator* allocator, char** out);           // 36
    OrtStatus* (*CreateTensorWithDataAsOrtValue)(const OrtMemoryInfo* info, void* data,
                                                 size_t bytes, const int64_t* shape,
                                                 size_t dims, int type,
                                                 OrtValue** out);                     // 49
    OrtStatus* (*GetTensorMutableData)(OrtValue* value, void** out);                  // 51
    OrtStatus* (*GetTensorElementType)(const OrtTensorTypeAndShapeInfo* info,
                                       int* out);                                     // 60
    OrtStatus* (*GetDimensionsCount)(const OrtTensorTypeAndShapeInfo* info,
                                     size_t* out);                                    // 61
    OrtStatus* (*GetDimensions)(const OrtTensorTypeAndShapeInfo* info, int64_t* dims,
                                size_t count);                                        // 62
    OrtStatus* (*GetTensorTypeAndShape)(const OrtValue* value,
                                        OrtTensorTypeAndShapeInfo** out);             // 65
    OrtStatus* (*CreateCpuMemoryInfo)(int allocatorType, int memType,
                                      OrtMemoryInfo** out);                           // 69
    OrtStatus* (*AllocatorFree)(OrtAllocator* allocator, void* p);                    // 76
    OrtStatus* (*GetAllocatorWithDefaultOptions)(OrtAllocator** out);                 // 78
    void (*ReleaseStatus)(OrtStatus* status);                                         // 93
    void (*ReleaseMemoryInfo)(OrtMemoryInfo* info);                                   // 94
    void (*ReleaseSession)(OrtSession* session);                                      // 95
    void (*ReleaseValue)(OrtValue* value);                                            // 96
    void (*ReleaseTensorTypeAndShapeInfo)(OrtTensorTypeAndShapeInfo* info);           // 99
    void (*ReleaseSessionOptions)(OrtSessionOptions* options);                        // 100
};

// Fills `api` from the runtime's table; false when a slot is empty or its function lies outside
// the library at `base` (not the table we think it is).
bool fill(Api* api, const Slot* table, const void* base) {
    bool whole = true;
    auto take = [&](auto& fn, int slot) {
        fn = reinterpret_cast<std::remove_reference_t<decltype(fn)>>(table[slot]);
        Dl_info info{};
        whole = whole && table[slot] && dladdr(reinterpret_cast<void*>(table[slot]), &info) &&
                info.dli_fbase == base;
    };
    take(api->CreateStatus, 0);
    take(api->GetErrorCode, 1);
    take(api->GetErrorMessage, 2);
    take(api->CreateEnv, 3);
    take(api->CreateSession, 7);
    take(api->Run, 9);
    take(api->CreateSessionOptions, 10);
    take(api->DisableMemPattern, 17);
    take(api->DisableCpuMemArena, 19);
    take(api->SetSessionGraphOptimizationLevel, 23);
    take(api->SetIntraOpNumThreads, 24);
    take(api->SetInterOpNumThreads, 25);
    take(api->SessionGetInputName, 36);
    take(api->CreateTensorWithDataAsOrtValue, 49);
    take(api->GetTensorMutableData, 51);
    take(api->GetTensorElementType, 60);
    take(api->GetDimensionsCount, 61);
    take(api->GetDimensions, 62);
    take(api->GetTensorTypeAndShape, 65);
    take(api->CreateCpuMemoryInfo, 69);
    take(api->AllocatorFree, 76);
    take(api->GetAllocatorWithDefaultOptions, 78);
    take(api->ReleaseStatus, 93);
    take(api->ReleaseMemoryInfo, 94);
    take(api->ReleaseSession, 95);
    take(api->ReleaseValue, 96);
    take(api->ReleaseTensorTypeAndShapeInfo, 99);
    take(api->ReleaseSessionOptions, 100);
    return whole;
}

// A status made and read back through the table: its first slots and ReleaseStatus are where
// they should be.
bool answers(const Api& api) {
    OrtStatus* probe = api.CreateStatus(kInvalidArgument, "qx probe");
    if (!probe) return false;
    const bool right = api.GetErrorCode(probe) == kInvalidArgument &&
                       std::strcmp(api.GetErrorMessage(probe), "qx probe") == 0;
    api.ReleaseStatus(probe);
    return right;
}

// The status's words (empty for success, which is null), the status released.
std::string failure(const Api& api, OrtStatus* status) {
    if (!status) return {};
    std::string text = api.GetErrorMessage(status);
    api.ReleaseStatus(status);
    return text.empty() ? "ONNX Runtime failed" : text;
}

// A loaded runtime and its environment (logging, the shared allocators), which the runtime
// wants once a process: both are kept for the process's life, the sessions come and go.
struct Runtime {
    Api api{};
    std::string version;
    OrtEnv* env = nullptr;
};

// The runtime of the library at `path`, loaded once; null with *why when it can't be used.
const Runtime* runtimeAt(const std::string& path, std::string* why) {
    static std::mutex mutex;
    static auto* loaded = new std::map<std::string, Runtime>;  // lives to exit
    std::lock_guard<std::mutex> lock(mutex);
    if (auto found = loaded->find(path); found != loaded->end()) return &found->second;
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!handle) {
        const char* error = dlerror();
        *why = error ? error : path + ": can't be loaded";
        return nullptr;
    }
    Runtime runtime;
    using Entry = const OrtApiBase* (*)();
    const auto entry = reinterpret_cast<Entry>(dlsym(handle, "OrtGetApiBase"));
    const OrtApiBase* base = entry ? entry() : nullptr;
    Dl_info self{};
    const char* version = base && base->GetVersionString ? base->GetVersionString() : nullptr;
    int major = 0, minor = 0;
    if (!version || std::sscanf(version, "%d.%d", &major, &minor) != 2 || major != 1) {
        *why = path + ": not ONNX Runtime";
    } else if (const Slot* table = base->GetApi ? base->GetApi(kApiVersion) : nullptr; !table) {
        *why = path + ": ONNX Runtime " + version + " is older than 1.16";
    } else if (!dladdr(reinterpret_cast<void*>(entry), &self) ||
               !fill(&runtime.api, table, self.dli_fbase) || !answers(runtime.api)) {
        *why = path + ": ONNX Runtime " + version + " lacks the expected C API";
    } else {
        // Its own log is kept quiet: every failure comes back as a status, into our message.
        *why = failure(runtime.api,
                       runtime.api.CreateEnv(kLogFatal, "qxiveilon31", &runtime.env));
        if (why->empty()) {
            runtime.version = version;
            return &loaded->emplace(path, std::move(runtime)).first->second;
        }
    }
    dlclose(handle);
    return nullptr;
}

// The runtime's words for a failed allocation: its arena's and a std::bad_alloc caught inside.
bool outOfMemory(const std::string& text) {
    return text.find("bad_alloc") != std::string::npos ||
           text.find("Failed to allocate memory") != std::string::npos;
}

int usableCores() {
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof set, &set) == 0) return std::max(1, CPU_COUNT(&set));
    return 1;
}

}  // namespace

class Session {
public:
    explicit Session(const Runtime& runtime) : runtime_(runtime), api_(runtime.api) {}
    ~Session() {
        if (session_) api_.ReleaseSession(session_);
        if (memory_) api_.ReleaseMemoryInfo(memory_);
    }
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    std::string open(const std::string& modelPath) {
        OrtSessionOptions* options = nullptr;
        std::string error = failure(api_, api_.CreateSessionOptions(&options));
        if (!error.empty()) return error;
        // All the cores the process may use for a node; nodes one after another.
        error = failure(api_, api_.SetIntraOpNumThreads(options, usableCores()));
        if (error.empty()) error = failure(api_, api_.SetInterOpNumThreads(options, 1));
        if (error.empty())
            error = failure(api_, api_.SetSessionGraphOptimizationLevel(options, kOptimiseAll));
        // The arena keeps what a pass frees for the next one and the memory plan lays out the
        // pass's intermediates ahead: a 1024-pixel pass peaked at 1.77 GB with them, 0.98 GB
        // without (OpenCV's dnn 0.83 GB), in the same time as far as a shared machine could tell.
        if (error.empty()) error = failure(api_, api_.DisableCpuMemArena(options));
        if (error.empty()) error = failure(api_, api_.DisableMemPattern(options));
        if (error.empty())
            error = failure(api_, api_.CreateSession(runtime_.env, modelPath.c_str(), options,
                                                     &session_));
        api_.ReleaseSessionOptions(options);
        if (error.empty())
            error = failure(api_, api_.CreateCpuMemoryInfo(kArenaAllocator, kMemTypeDefault,
                                                           &memory_));
        if (error.empty()) error = readInputName();
        return error;
    }

    int forward(const unsigned char* rgb, int side, float* mask, std::string* message) {
        // The network was trained on x / 256 - 0.5 per channel, RGB, one plane a channel.
        float scaled[256];
        for (int v = 0; v < 256; ++v) scaled[v] = (static_cast<float>(v) - 128.0f) / 256.0f;
        const size_t plane = static_cast<size_t>(side) * side;
        std::vector<float> input(3 * plane);
        for (size_t i = 0; i < plane; ++i)
            for (int c = 0; c < 3; ++c) input[c * plane + i] = scaled[rgb[3 * i + c]];
        const int64_t shape[4] = {1, 3, side, side};
        OrtValue* in = nullptr;
        std::string error = failure(
            api_, api_.CreateTensorWithDataAsOrtValue(memory_, input.data(),
                                                      input.size() * sizeof(float), shape, 4,
                                                      kFloat, &in));
        OrtValue* out = nullptr;
        if (error.empty()) {
            const char* inputName = inputName_.c_str();
            const char* outputName = "output";
            error = failure(api_, api_.Run(session_, nullptr, &inputName, &in, 1, &outputName, 1,
                                           &out));
        }
        int status = error.empty() ? 0 : outOfMemory(error) ? 2 : 1;
        if (status == 0) {
            const float* soft = maskOf(out, side, &error);
            if (soft) {
                for (size_t i = 0; i < plane; ++i) mask[i] = std::clamp(soft[i], 0.0f, 1.0f);
            } else {
                status = 1;
            }
        }
        if (out) api_.ReleaseValue(out);
        if (in) api_.ReleaseValue(in);
        if (status == 1) *message = error;
        return status;
    }

    const std::string& version() const { return runtime_.version; }

private:
    std::string readInputName() {
        OrtAllocator* allocator = nullptr;
        std::string error = failure(api_, api_.GetAllocatorWithDefaultOptions(&allocator));
        char* name = nullptr;
        if (error.empty())
            error = failure(api_, api_.SessionGetInputName(session_, 0, allocator, &name));
        if (name) {
            inputName_ = name;
            error = failure(api_, api_.AllocatorFree(allocator, name));
        }
        return error;
    }

    // The output's floats when it is one mask of side x side; null with *error saying why not.
    const float* maskOf(OrtValue* out, int side, std::string* error) {
        OrtTensorTypeAndShapeInfo* info = nullptr;
        *error = failure(api_, api_.GetTensorTypeAndShape(out, &info));
        int type = 0;
        size_t dims = 0;
        int64_t shape[4] = {};
        if (error->empty()) *error = failure(api_, api_.GetTensorElementType(info, &type));
        if (error->empty()) *error = failure(api_, api_.GetDimensionsCount(info, &dims));
        if (error->empty() && dims == 4)
            *error = failure(api_, api_.GetDimensions(info, shape, 4));
        if (info) api_.ReleaseTensorTypeAndShapeInfo(info);
        if (!error->empty()) return nullptr;
        void* data = nullptr;
        if (type != kFloat || dims != 4 || shape[0] != 1 || shape[1] != 1 || shape[2] != side ||
            shape[3] != side || !failure(api_, api_.GetTensorMutableData(out, &data)).empty() ||
            !data) {
            *error = "the subject model's output is not one " + std::to_string(side) +
                     "-pixel mask";
            return nullptr;
        }
        return static_cast<const float*>(data);
    }

    const Runtime& runtime_;
    const Api& api_;
    OrtSession* session_ = nullptr;
    OrtMemoryInfo* memory_ = nullptr;
    std::string inputName_;
};

void SessionDeleter::operator()(Session* session) const { delete session; }

std::string runtimePath() {
    if (const char* env = std::getenv("QX_ONNXRUNTIME"); env && *env) return env;
    const std::string folder = cacheFolder();
    return folder.empty() ? folder : folder + "/libonnxruntime.so.1";
}

SessionPtr open(const std::string& runtimePath, const std::string& modelPath, std::string* why) {
    const Runtime* runtime = runtimeAt(runtimePath, why);
    if (!runtime) return nullptr;
    SessionPtr session(new Session(*runtime));
    *why = session->open(modelPath);
    if (!why->empty()) return nullptr;
    return session;
}

const std::string& version(const Session& session) { return session.version(); }

int forward(Session& session, const unsigned char* rgb, int side, float* mask,
            std::string* message) {
    return session.forward(rgb, side, mask, message);
}

}  // namespace qx::subject::ort
