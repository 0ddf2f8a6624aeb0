/*
 * Threads of the OS layer on pthreads. A handle is a small record that
 * carries the start function until the thread runs it.
 */
#include <pthread.h>

#include <cstring>
#include <new>

#include "services/uni_thread.h"

namespace {

struct Thread {
    pthread_t id;
    THREAD_FUNC func;
    void *arg;
    char name[16]; /* the kernel shows at most 15 characters */
};

void *thread_main(void *raw)
{
    Thread *thread = static_cast<Thread *>(raw);
    if (thread->name[0] != '\0') {
        pthread_setname_np(pthread_self(), thread->name);
    }
    thread->func(thread->arg);
    return nullptr;
}

} // namespace

extern "C" OPERATE_RET ThreadCreate(THREAD_HANDLE *handle, THREAD_FUNC func, void *arg, const CHAR_T *name)
{
    if (handle == nullptr || func == nullptr) {
        return RC_BAD_PARAM;
    }
    Thread *thread = new (std::nothrow) Thread();
    if (thread == nullptr) {
        return RC_NO_MEMORY;
    }
    thread->func = func;
    thread->arg = arg;
    if (name != nullptr) {
        std::strncpy(thread->name, name, sizeof(thread->name) - 1);
    }
    if (pthread_create(&thread->id, nullptr, thread_main, thread) != 0) {
        delete thread;
        return RC_FAIL;
    }
    *handle = thread;
    return RC_OK;
}

extern "C" OPERATE_RET ThreadJoin(THREAD_HANDLE handle)
{
    if (handle == nullptr) {
        return RC_BAD_PARAM;
    }
    Thread *thread = static_cast<Thread *>(handle);
    if (pthread_equal(thread->id, pthread_self())) {
        return RC_BAD_PARAM; /* a thread cannot wait for itself */
    }
    const int err = pthread_join(thread->id, nullptr);
    delete thread;
    return err == 0 ? RC_OK : RC_FAIL;
}
