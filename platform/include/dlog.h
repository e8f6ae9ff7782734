// The platform log. Every message of the library goes through __dlog_print with a module tag.
#ifndef QRB_PLATFORM_DLOG_H
#define QRB_PLATFORM_DLOG_H

#ifdef __cplusplus
extern "C" {
#endif

typedef enum {
    DLOG_DEBUG = 3,
    DLOG_INFO = 4,
    DLOG_WARN = 5,
    DLOG_ERROR = 6
} log_priority;

// The library writes to log buffer 2.
#define QRB_LOG_BUFFER 2

int __dlog_print(int log_id, int prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 4, 5)));

#ifdef __cplusplus
}
#endif

#endif
