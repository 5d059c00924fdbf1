/* Stand-in for the closed logger libkorvalogger-qmt.so: the two calls
 * CommonL uses, with the same names, linkage and arguments, so that the
 * real library can replace this one at deployment. */
#ifndef KORVALOGGER_H
#define KORVALOGGER_H

#ifdef __cplusplus
extern "C" {
#endif

/* Current detail level; a larger level is more detailed. */
int LoggerGetLevel(void);

/* One message at `level`. The stand-in accepts any level and writes one
 * line to standard error. */
void LogOutputLevel(int level, const char* file, int line, const char* function,
                    const char* format, ...) __attribute__((format(printf, 5, 6)));

#ifdef __cplusplus
}
#endif

#endif
