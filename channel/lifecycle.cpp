// Construction, (re)initialisation, close and destruction of the channel.
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "batch/digest_stream.h"
#include "batch/resume_record.h"
#include "batch/work_share.h"
#include "channel/atomics.h"
#include "channel/globals.h"
#include "channel/scoped_lock.h"
#include "channel/webChannel.h"
#include "transport/idle_registry.h"

webChannel::webChannel()
    : m_sslContext(nullptr),
      m_httpProxyAddress(0),
      m_httpsProxyAddress(0),
      m_buffer(nullptr),
      m_handler(nullptr),
      m_handlerData(nullptr),
      m_responseLength(0),
      m_errorCode(0),
      m_threadNum(0),
      m_incomplete(nullptr),
      m_verifiedStale(true),
      m_batchRunning(false),
      m_errorMessageWhole(false),
      m_filesRehashed(0),
      m_progressDone(0),
      m_progressSize(0),
      m_progressFinished(0),
      m_trustLoaded(false),
      m_idle(std::make_unique<IdleRegistry>([this](connection* conn) { closeConnection(conn); })) {
    pthread_mutex_init(&m_lock1, nullptr);
    pthread_mutex_init(&m_lock2, nullptr);
    pthread_mutex_init(&m_lock3, nullptr);
    pthread_mutex_init(&m_lock4, nullptr);
    pthread_mutex_init(&m_errorLock, nullptr);
    pthread_mutex_init(&m_trustLock, nullptr);
}

int webChannel::init(unsigned threadNum) {
    if (logging()) log("webChannel::init - start with threadNum = %s", std::to_string(threadNum).c_str());
    m_httpGetJobs.clear();
    m_jobIndex.clear();
    m_downloaded.clear();
    m_digestStreams.clear();
    m_resumeRecords.clear();
    {
        ScopedLock lock(m_lock4);
        m_verifiedStale = true;
    }
    clearError();
    m_response.clear();
    atomicStore(m_responseLength, 0LL);

    m_threadNum = threadNum == 0 ? kDefaultThreads : threadNum;
    if (m_threadNum > kMaxThreads) m_threadNum = kMaxThreads;

    free(m_buffer);
    m_buffer = static_cast<char*>(malloc((size_t)m_threadNum * kBufferSlice));
    if (m_incomplete != nullptr) {
        if (logging()) log("webChannel::init - free m_incomplete");
        free(m_incomplete);
    }
    m_incomplete = static_cast<int*>(calloc(m_threadNum, sizeof(int)));

    // Worker records outlive batches so that the next batch resumes their
    // unfinished pieces. Those pieces belong to the job list just emptied, so
    // they go too; and a record numbered beyond the new worker count would
    // read into a buffer slice that no longer exists, so it is released.
    for (size_t i = 0; i < m_batch.size();) {
        threadData* record = m_batch[i];
        record->jobs.clear();
        if ((unsigned)record->index < m_threadNum) {
            ++i;
            continue;
        }
        emptyPool(record->connections, record->retired);
        delete record;
        m_batch.erase(m_batch.begin() + (long)i);
    }

    if (logging()) log("webChannel::init - check m_sslContext");
    if (m_sslContext != nullptr) return 0;
    if (logging()) log("webChannel::init - start initSSL");
    return initSSL();
}

void webChannel::close() {
    finalizeBatch();
    for (threadData* record : m_batch) {
        emptyPool(record->connections, record->retired);
        delete record;
    }
    m_batch.clear();
    // The next batch plans every file afresh.
    m_digestStreams.clear();
    m_resumeRecords.clear();
    emptyPool(m_connections, m_retiredConnections);
}

webChannel::~webChannel() {
    if (logging()) log("VRAXSecureWebChannel::~webChannel: started");
    // The log mutex is process-wide and never destroyed, so close() can still
    // write its lines; the channel's own locks go once nothing can take them.
    close();
    pthread_mutex_destroy(&m_lock1);
    pthread_mutex_destroy(&m_lock2);
    pthread_mutex_destroy(&m_lock3);
    pthread_mutex_destroy(&m_lock4);
    pthread_mutex_destroy(&m_errorLock);
    pthread_mutex_destroy(&m_trustLock);
    free(m_buffer);
    m_buffer = nullptr;
    free(m_incomplete);
    m_incomplete = nullptr;
    // A later instance starts without a log until its host calls setLog.
    FILE* logFile = m_log;
    __atomic_store_n(&m_log, (FILE*)nullptr, __ATOMIC_RELAXED);
    if (logFile != nullptr && logFile != stdout) fclose(logFile);
    for (auto& entry : m_trustStores) X509_STORE_free(entry.second);
    m_trustStores.clear();
    if (m_sslContext != nullptr) {
        SSL_CTX_free(m_sslContext);
        m_sslContext = nullptr;
        CRYPTO_set_locking_callback(nullptr);
        CRYPTO_set_id_callback(nullptr);
        EVP_cleanup();
    }
    if (gSSLMutexArray != nullptr) {
        for (int i = 0; i < CRYPTO_num_locks(); ++i) pthread_mutex_destroy(&gSSLMutexArray[i]);
        free(gSSLMutexArray);
        gSSLMutexArray = nullptr;
    }
}
