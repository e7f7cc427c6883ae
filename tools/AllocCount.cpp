// A development tool for scripts/load: loaded into pvocd with LD_PRELOAD,
// it counts the C library's allocation calls of the whole process and
// writes the count to the file PVOC_ALLOC_COUNT_FILE names every 50 ms, so
// that the load script can take the allocations per request from two
// reads around a run of requests. No package installs it.
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
}

namespace {

std::atomic<long> allocations(0);

// Each count is written beside the file and renamed over it, so that a
// read never finds the file emptied for the next write.
void* Writer(void* path) {
    char written[4096];
    if (std::snprintf(written, sizeof written, "%s.new", static_cast<const char*>(path)) >=
        static_cast<int>(sizeof written)) {
        return nullptr;
    }
    for (;;) {
        usleep(50000);
        std::FILE* file = std::fopen(written, "w");
        if (file == nullptr) continue;
        std::fprintf(file, "%ld\n", allocations.load());
        if (std::fclose(file) == 0) std::rename(written, static_cast<const char*>(path));
    }
    return nullptr;
}

// Starts the writer with every signal blocked, so that the daemon's own
// signal handling never finds it.
__attribute__((constructor)) void StartWriter() {
    const char* path = std::getenv("PVOC_ALLOC_COUNT_FILE");
    if (path == nullptr) return;
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    if (pthread_create(&thread, nullptr, Writer, const_cast<char*>(path)) == 0) pthread_detach(thread);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

extern "C" {

void* malloc(std::size_t size) {
    ++allocations;
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size) {
    ++allocations;
    return __libc_calloc(count, size);
}

void* realloc(void* block, std::size_t size) {
    ++allocations;
    return __libc_realloc(block, size);
}

int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    ++allocations;
    *block = __libc_memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}

void* aligned_alloc(std::size_t alignment, std::size_t size) {
    ++allocations;
    return __libc_memalign(alignment, size);
}

void* memalign(std::size_t alignment, std::size_t size) {
    ++allocations;
    return __libc_memalign(alignment, size);
}

} // extern "C"
