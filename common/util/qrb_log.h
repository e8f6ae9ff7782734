// Log macros. Every message goes to the platform log (buffer 2) with the module tag, the
// "file: function(line) > " prefix and a coloured body that repeats function, line and the
// kernel thread id. A file whose module is not "QRB-thumbnail" defines QRB_LOG_TAG before its
// first include.
#ifndef QRB_COMMON_LOG_H
#define QRB_COMMON_LOG_H

#include "dlog.h"

#include <sys/types.h>
#include <unistd.h>

#ifndef QRB_LOG_TAG
#define QRB_LOG_TAG "QRB-thumbnail"
#endif

#define QRB_LOG_TAG_THUMBNAIL "QRB-thumbnail"
#define QRB_LOG_TAG_DLNA "QRB-DLNA"
#define QRB_LOG_TAG_LOCAL "QRB-LOCAL"
#define QRB_LOG_TAG_DMP "QRB-DMP"
#define QRB_LOG_TAG_COMMON "QRB-COMMON"

#define QRB_LOG_FILE_NAME (__builtin_strrchr(__FILE__, '/') ? __builtin_strrchr(__FILE__, '/') + 1 : __FILE__)

#define QRB_LOG_WITH(tag, prio, body, fmt, ...)                                                   \
    __dlog_print(QRB_LOG_BUFFER, prio, tag, "%s: %s(%d) > " body fmt "\033[0m", QRB_LOG_FILE_NAME, \
                 __func__, __LINE__, __func__, __LINE__, static_cast<int>(gettid()), ##__VA_ARGS__)

#define QRB_BODY_DEBUG "\033[32m[%s:%d] [Thread Id:[%d]] "
#define QRB_BODY_INFO "\033[31m [INFO]:[%s:%d] [Thread Id:[%d]] "
// The warning body is spelled so deliberately: log readers match on it.
#define QRB_BODY_WARN "\033[31m [WARNNING]:[%s:%d] [Thread Id:[%d]] "
#define QRB_BODY_HIGHLIGHT "\033[33m[%s:%d] [Thread Id:[%d]] "

#define QRB_LOGD(fmt, ...) QRB_LOG_WITH(QRB_LOG_TAG, DLOG_DEBUG, QRB_BODY_DEBUG, fmt, ##__VA_ARGS__)
#define QRB_LOGI(fmt, ...) QRB_LOG_WITH(QRB_LOG_TAG, DLOG_INFO, QRB_BODY_INFO, fmt, ##__VA_ARGS__)
#define QRB_LOGH(fmt, ...) QRB_LOG_WITH(QRB_LOG_TAG, DLOG_INFO, QRB_BODY_HIGHLIGHT, fmt, ##__VA_ARGS__)
#define QRB_LOGW(fmt, ...) QRB_LOG_WITH(QRB_LOG_TAG, DLOG_WARN, QRB_BODY_WARN, fmt, ##__VA_ARGS__)

#endif
