// Loading the library with dlopen, and setting up the channel it gives.
#include <dlfcn.h>
#include <limits.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

#include "descriptors.h"
#include "webget.h"

#ifndef WEBGET_INSTALL_LIBDIR
#define WEBGET_INSTALL_LIBDIR "lib"
#endif
#ifndef WEBGET_INSTALL_FULL_LIBDIR
#define WEBGET_INSTALL_FULL_LIBDIR "/usr/local/lib"
#endif

namespace webget {
namespace {

std::string executableDirectory() {
    char buffer[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer - 1);
    if (length <= 0) return std::string();
    buffer[length] = 0;
    std::string path(buffer);
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash == 0 ? 1 : slash);
}

bool fileExists(const std::string& path) {
    struct stat info;
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

// Where to look: --library, WEBGET_LIBRARY, the build tree (../libwebchannel.so
// seen from build/tools/webget), next to the program, the installed layout
// relative to the program (bin/../lib), the configured install directory.
// An explicit choice is the only candidate.
std::vector<std::string> libraryCandidates(const Options& options, bool& explicitChoice) {
    std::vector<std::string> candidates;
    explicitChoice = false;
    if (!options.library.empty()) {
        candidates.push_back(options.library);
        explicitChoice = true;
    } else if (const char* fromEnvironment = getenv("WEBGET_LIBRARY"); fromEnvironment != nullptr && *fromEnvironment) {
        candidates.push_back(fromEnvironment);
        explicitChoice = true;
    } else {
        std::string self = executableDirectory();
        if (!self.empty()) {
            candidates.push_back(self + "/../libwebchannel.so");
            candidates.push_back(self + "/libwebchannel.so");
            candidates.push_back(self + "/libwebchannel.so.1");
            candidates.push_back(self + "/../" WEBGET_INSTALL_LIBDIR "/libwebchannel.so.1");
        }
        candidates.push_back(WEBGET_INSTALL_FULL_LIBDIR "/libwebchannel.so.1");
    }
    return candidates;
}

}  // namespace

// Tries the candidates in order and, last, the dynamic loader's own search.
bool loadLibrary(const Options& options, Library& library) {
    bool explicitChoice = false;
    std::string errors;
    for (const std::string& candidate : libraryCandidates(options, explicitChoice)) {
        if (!explicitChoice && !fileExists(candidate)) continue;
        void* handle = dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle == nullptr) {
            const char* why = dlerror();
            errors += std::string("\n  ") + (why != nullptr ? why : candidate);
            continue;
        }
        library.handle = handle;
        library.path = candidate;
        break;
    }
    if (library.handle == nullptr && !explicitChoice) {
        // The loader's search path (LD_LIBRARY_PATH, ld.so.cache).
        library.handle = dlopen("libwebchannel.so.1", RTLD_NOW | RTLD_LOCAL);
        if (library.handle != nullptr)
            library.path = "libwebchannel.so.1";
        else if (const char* why = dlerror())
            errors += std::string("\n  ") + why;
    }
    if (library.handle == nullptr) {
        complain("cannot load the library%s%s", errors.empty() ? " (not found; use --library PATH)" : ":",
                 errors.c_str());
        return false;
    }
    library.create =
        reinterpret_cast<VRAXSecureWebChannelCreateFn>(dlsym(library.handle, "VRAXSecureWebChannelCreate"));
    library.destroy =
        reinterpret_cast<VRAXSecureWebChannelDestroyFn>(dlsym(library.handle, "VRAXSecureWebChannelDestroy"));
    if (library.create == nullptr || library.destroy == nullptr) {
        complain("%s does not export the channel factory", library.path.c_str());
        dlclose(library.handle);
        library.handle = nullptr;
        return false;
    }
    return true;
}

// A server must accept a request naming the absolute URL, yet some answer it
// with 404, while a proxy needs it to know where to go.
bool chooseRequestForm(VRAXSecureWebChannel* channel, const Options& options, const std::string& url) {
    // --http-proxy also carries https URLs unless --https-proxy is given.
    const bool https = strncasecmp(url.c_str(), "https://", 8) == 0;
    const bool proxied = options.httpProxyGiven || (https && options.httpsProxyGiven);
    channel->setParam(wc::kParamRelativeTarget, proxied ? nullptr : "", true);
    return !proxied;
}

int configureChannel(VRAXSecureWebChannel* channel, const Options& options) {
    if (!options.logFile.empty()) channel->setLog(options.logFile.c_str());
    // Failures then come with the failing layer's own code and its reason.
    channel->setParam(wc::kParamErrorDetail, "1", true);
    int result = channel->init(options.workers);
    if (result != wc::kOk) {
        complain("the channel could not be initialised: %s", describe(result).c_str());
        return kExitUsage;
    }
    if (options.httpProxyGiven || options.httpsProxyGiven) {
        result = channel->setProxy(options.httpProxyGiven ? options.httpProxy.c_str() : nullptr,
                                   options.httpsProxyGiven ? options.httpsProxy.c_str() : nullptr);
        if (result != wc::kOk) {
            complain("proxy not usable: %s", describe(result).c_str());
            return kExitUsage;
        }
    }
    if (options.userGiven) {
        size_t colon = options.user.find(':');
        channel->setParam(wc::kParamUser, options.user.substr(0, colon).c_str(), true);
        channel->setParam(wc::kParamPassword, options.user.substr(colon + 1).c_str(), true);
    }
    if (!options.timeout.empty()) channel->setParam(wc::kParamTimeout, options.timeout.c_str(), true);
    if (options.noCache) channel->setParam(wc::kParamNoCache, "1", true);
    // A large file is fetched in file order, so that its digest follows the
    // bytes as they come instead of running over most of the file at the end;
    // idle workers take work from busy ones, so that a batch never waits for
    // its slowest connection.
    channel->setParam(wc::kParamFileOrder, "", true);
    channel->setParam(wc::kParamAdaptive, "", true);
    // Every job added from now on continues its target.
    if (options.resume) channel->setParam(wc::kParamContinue, "1", true);
    if (options.cookieGiven) channel->setParam(wc::kParamCookie, options.cookie.c_str(), true);
    if (options.keepCookies) channel->setParam(wc::kParamCookieCapture, "1", true);
    if (options.unknownSize) channel->setParam(wc::kParamUnknownSize, "1", true);
    if (!options.insecure) channel->setParam(wc::kParamVerifyPeer, options.caCert.c_str(), true);
    // The user's secrets stay with the server they were given for, and a
    // verified transfer is never redirected to plain HTTP.
    channel->setParam(wc::kParamStrictRedirects, options.locationTrusted ? wc::kRedirectsTrusted : "", true);
    // Idle connections to many hosts stay well inside the descriptor limit.
    channel->setParam(wc::kParamIdleCap, std::to_string(idleCapFor(descriptorLimit(), options.workers)).c_str(), true);
    return -1;
}

}  // namespace webget
