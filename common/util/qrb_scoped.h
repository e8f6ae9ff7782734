// Ownership of C handles: one std::unique_ptr alias per handle type, declared beside its user,
// e.g. using QRBScopedCurl = QRBScoped<CURL, curl_easy_cleanup>. Free functions that do not
// return void get a one-line wrapper that does.
#ifndef QRB_COMMON_SCOPED_H
#define QRB_COMMON_SCOPED_H

#include <cstdio>
#include <memory>

template <typename T, void (*FreeFn)(T*)>
struct QRBFreeWith {
    void operator()(T* p) const noexcept {
        if (p) FreeFn(p);
    }
};

template <typename T, void (*FreeFn)(T*)>
using QRBScoped = std::unique_ptr<T, QRBFreeWith<T, FreeFn>>;

// A stdio stream, closed on every way out. Where a failed close means lost data (a full disk),
// close it yourself first: std::fclose(file.release()).
inline void QRBCloseFile(std::FILE* f) { std::fclose(f); }
using QRBScopedFile = QRBScoped<std::FILE, QRBCloseFile>;

#endif
