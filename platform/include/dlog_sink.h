// Lets a program (tests, the command-line tool) receive every log message as it is written,
// whatever the stderr threshold. The sink runs on the logging thread; it must be thread-safe.
#ifndef QRB_PLATFORM_DLOG_SINK_H
#define QRB_PLATFORM_DLOG_SINK_H

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*dlog_sink_fn)(int prio, const char* tag, const char* message, void* user_data);

// Installs the sink (NULL removes it). Messages still go to stderr at or above the threshold.
void dlog_set_sink(dlog_sink_fn sink, void* user_data);

// Overrides the stderr threshold that QRB_LOG_LEVEL sets (3 debug ... 6 error; 7 silences).
void dlog_set_stderr_level(int prio);

#ifdef __cplusplus
}
#endif

#endif
