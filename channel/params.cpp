// Channel parameters and per-job access parameters.
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"

// Channel parameters are read by the workers of a running batch while the
// cookie capture of the response parser may store a new cookie, so every
// access to m_params goes through m_lock3.

void webChannel::setParam(int id, const char* value, bool channel) {
    if (!channel) {
        // A job parameter belongs to the job added most recently.
        if (m_httpGetJobs.empty() || value == nullptr) return;
        m_httpGetJobs.back().params[id] = value;
        return;
    }
    if (value != nullptr) {
        ScopedLock lock(m_lock3);
        m_params[id] = value;
        return;
    }
    {
        ScopedLock lock(m_lock3);
        m_params.erase(id);
    }
    // The captured cookie goes with its switch.
    if (id == kParamCookieCapture) setParam(kParamCookie, nullptr, true);
}

bool webChannel::getParam(int id, std::string& value, bool channel) {
    if (!channel) {
        if (m_httpGetJobs.empty()) return false;
        const AccessParams& params = m_httpGetJobs.back().params;
        auto found = params.find(id);
        if (found == params.end()) return false;
        value = found->second;
        return true;
    }
    return findParam(id, value);
}

bool webChannel::hasParam(int id) {
    ScopedLock lock(m_lock3);
    return m_params.count(id) != 0;
}

bool webChannel::findParam(int id, std::string& value) {
    ScopedLock lock(m_lock3);
    auto found = m_params.find(id);
    if (found == m_params.end()) return false;
    value = found->second;
    return true;
}

AccessParams webChannel::paramsSnapshot() {
    ScopedLock lock(m_lock3);
    return m_params;
}

void webChannel::mergeAccessParams(AccessParams& target, const AccessParams& source) {
    // Only the cookie, the proxy credentials and the no-cache switch are
    // inherited; values already in the target win.
    for (int id : {kParamCookie, kParamProxyAuth, kParamNoCache}) {
        if (target.count(id) != 0) continue;
        auto found = source.find(id);
        if (found != source.end()) target[id] = found->second;
    }
}

void webChannel::mergeChannelParams(AccessParams& target) {
    ScopedLock lock(m_lock3);
    mergeAccessParams(target, m_params);
}
