#include "subject/subject_net.h"

#include <dlfcn.h>
#include <malloc.h>

#include <cstdlib>
#include <map>
#include <mutex>
#include <utility>
#include <vector>

#include "subject/cache_folder.h"
#include "subject/net_module.h"

namespace qx::subject {
namespace {

constexpr const char* kModuleFile = "qxiveilon31-subject.so";

std::string folderOf(const std::string& file) {
    const size_t slash = file.rfind('/');
    return slash == std::string::npos ? std::string(".") : file.substr(0, slash);
}

// Where the network's module is looked for: the environment's QX_SUBJECT_MODULE alone when set;
// otherwise beside the shared object (or program) that holds this code, which is where an
// installed library has it, then the build tree's copy, for programs run from it.
std::vector<std::string> moduleCandidates() {
    std::vector<std::string> paths;
    if (const char* env = std::getenv("QX_SUBJECT_MODULE"); env && *env) return {env};
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&moduleCandidates), &info) && info.dli_fname)
        paths.push_back(folderOf(info.dli_fname) + "/" + kModuleFile);
#ifdef QX_SUBJECT_MODULE_BUILT
    paths.emplace_back(QX_SUBJECT_MODULE_BUILT);
#endif
    return paths;
}

// The module's table, loaded on the first call and kept for the process's life (the networks it
// made live as long); null with *why saying what each place gave when none loads.
const QxSubjectNetModule* netModule(std::string* why) {
    static std::mutex mutex;
    static const QxSubjectNetModule* table = nullptr;
    std::lock_guard<std::mutex> lock(mutex);
    if (table) return table;
    why->clear();
    for (const std::string& path : moduleCandidates()) {
        void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (!handle) {
            *why += (why->empty() ? "" : "; ") + std::string(dlerror());
            continue;
        }
        using Entry = const QxSubjectNetModule* (*)();
        const auto entry = reinterpret_cast<Entry>(dlsym(handle, kNetModuleEntry));
        const QxSubjectNetModule* found = entry ? entry() : nullptr;
        if (found && found->version == kNetModuleVersion) {
            table = found;
            return table;
        }
        *why += (why->empty() ? "" : "; ") + path + ": not this library's network module";
        dlclose(handle);
    }
    return nullptr;
}

std::mutex cacheMutex;
std::map<std::string, std::shared_ptr<SubjectNet>>& cache() {
    static auto* nets = new std::map<std::string, std::shared_ptr<SubjectNet>>;  // lives to exit
    return *nets;
}

}  // namespace

class SubjectNet {
public:
    SubjectNet(const QxSubjectNetModule& module, void* net, std::string runtime)
        : module_(module), net_(net), runtime_(std::move(runtime)) {}
    ~SubjectNet() { module_.release(net_); }
    SubjectNet(const SubjectNet&) = delete;
    SubjectNet& operator=(const SubjectNet&) = delete;

    cv::Mat run(const cv::Mat& rgb) {
        cv::Mat mask(rgb.rows, rgb.cols, CV_32F);
        char message[512] = "";
        const int status =
            module_.forward(net_, rgb.ptr(), rgb.rows, mask.ptr<float>(), message, sizeof message);
        if (status == 2) CV_Error(cv::Error::StsNoMem, "out of memory in the subject network");
        if (status != 0) CV_Error(cv::Error::StsError, message);
        return mask;
    }

    const std::string& runtime() const { return runtime_; }

private:
    const QxSubjectNetModule& module_;
    void* net_;
    std::string runtime_;
};

std::string modelPath(const char* explicitPath) {
    if (explicitPath && *explicitPath) return explicitPath;
    const char* env = std::getenv("QX_SUBJECT_MODEL");
    if (env && *env) return env;
    const std::string folder = cacheFolder();
    return folder.empty() ? folder : folder + "/isnet-fp32.onnx";
}

std::shared_ptr<SubjectNet> loadNet(const std::string& path) {
    // One lock over the whole load: two threads asking for a network at once load it once.
    std::lock_guard<std::mutex> lock(cacheMutex);
    auto& nets = cache();
    auto found = nets.find(path);
    if (found != nets.end()) return found->second;
    std::string why;
    const QxSubjectNetModule* module = netModule(&why);
    if (!module) CV_Error(cv::Error::StsError, "the network's module can't be loaded: " + why);
    char message[512] = "";
    void* handle = module->load(path.c_str(), message, sizeof message);
    if (!handle) CV_Error(cv::Error::StsError, message);
    auto net = std::make_shared<SubjectNet>(*module, handle, message);
    nets.emplace(path, net);
    return net;
}

std::string netModuleProblem() {
    std::string why;
    return netModule(&why) ? std::string() : why;
}

void releaseNet(const std::string& path) {
    std::shared_ptr<SubjectNet> net;
    {
        std::lock_guard<std::mutex> lock(cacheMutex);
        auto found = cache().find(path);
        if (found == cache().end()) return;
        net = std::move(found->second);
        cache().erase(found);
    }
    net.reset();      // outside the lock: freeing the network's buffers takes a moment
    malloc_trim(0);   // its many mid-sized blocks would otherwise stay in the process's heap
}

bool netLoaded(const std::string& path) {
    std::lock_guard<std::mutex> lock(cacheMutex);
    return cache().count(path) != 0;
}

std::string netRuntime(const SubjectNet& net) { return net.runtime(); }

cv::Mat forward(SubjectNet& net, const cv::Mat& rgb) {
    CV_Assert(rgb.type() == CV_8UC3 && rgb.rows == kNetSide && rgb.cols == kNetSide &&
              rgb.isContinuous());
    return net.run(rgb);
}

}  // namespace qx::subject
