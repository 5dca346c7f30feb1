/* orlo_sdk.h - the sensor platform's SDK for its daemons.
 *
 * C ABI, usable from C11 and C++. Unless a function says otherwise:
 *  - it may be called from the main thread only (the thread that runs OrloLoop);
 *  - strings are NUL-terminated and borrowed for the call;
 *  - a function that can fail leaves its output arguments untouched when it does.
 */
#ifndef ORLO_SDK_H
#define ORLO_SDK_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/types.h>
#include <sys/un.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(__GNUC__)
#define ORLO_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define ORLO_PRINTF(fmt, args)
#endif

/* ---- Event loop -------------------------------------------------------------------------
 * One loop per process. Callbacks run one at a time on the thread that called OrloLoop.
 * `value` is the signal number, the timer's interval in seconds, or the readable descriptor.
 * A callback's result is ignored.
 */
typedef int (*OrloLoopCallback)(int value, void* userData);

/* Runs `callback` in the loop, not in signal context, when signal `signo` arrives. The signal stays
 * blocked in the calling thread, so start threads afterwards.
 * A second call for the same signal replaces the callback. 0, or -1 with errno. */
int OrloLoopSignalAdd(int signo, OrloLoopCallback callback, void* userData);

/* Runs `callback` every `seconds` seconds, first after one interval. Expiries missed during a slow
 * callback are delivered once. 0, or -1 with errno (EINVAL below 1 and
 * above INT_MAX). */
int OrloLoopTimerAdd(int64_t seconds, OrloLoopCallback callback, void* userData);

/* Runs `callback` whenever `fd` is readable (level-triggered). The descriptor stays the
 * caller's; closing it ends the callbacks. 0, or -1 with errno (EEXIST for one that is watched,
 * EPERM for a regular file). */
int OrloLoopFdAdd(int fd, OrloLoopCallback callback, void* userData);

/* Runs callbacks until one calls OrloLoopQuit. 0, or -1 with errno when waiting failed. */
int OrloLoop(void);

/* Makes OrloLoop return after the current callback; while no loop runs, makes the next OrloLoop
 * return immediately. Any thread; a signal handler too, after the first OrloLoop...Add. */
void OrloLoopQuit(void);

/* ---- Command socket ---------------------------------------------------------------------
 * A Unix datagram socket at ORLO_RUN_DIR "/NAME.sock", mode 0600.
 */
#define ORLO_RUN_DIR "/run/orlo"

/* The sender of a command, filled by OrloCmdRecv for OrloCmdResp: 116 bytes, with the sender's
 * socket path as text from byte 2 on (empty for an unbound sender). */
typedef struct OrloCmdSender {
  struct sockaddr_un address; /* 110 bytes */
  uint16_t reserved;
  uint32_t addressLength; /* from recvfrom, for the response */
} OrloCmdSender;

/* Opens the command socket of the daemon `name` (1 to 64 letters, digits, '.', '_' and '-', not
 * starting with '.') and creates ORLO_RUN_DIR if it is missing. Replaces a socket file without a
 * listener; refuses one with a listener. Instances exclude each other with a lock on ORLO_RUN_DIR
 * "/NAME.lock", a file that is not removed. `flags` is reserved, 0. 0, or an error code for
 * OrloCmdError. */
int OrloCmdInit(const char* name, int flags);

/* The socket's descriptor, non-blocking, or -1 before OrloCmdInit and after OrloCmdFini. */
int OrloCmdFd(void);

/* Receives one datagram without blocking. Its number of bytes, at most `size` (a longer one is
 * truncated); 0 for an empty datagram or none. Sets *sender, which may be null, unless there was
 * none. `flags` is reserved, 0. */
size_t OrloCmdRecv(void* buffer, size_t size, OrloCmdSender* sender, int flags);

/* Sends `length` bytes to `sender` without blocking: the bytes sent, or a negative errno
 * (-EDESTADDRREQ for an unbound sender, -ECONNREFUSED or -ENOENT for a closed one, -EAGAIN for one
 * that does not read). */
int OrloCmdResp(const void* bytes, uint16_t length, const OrloCmdSender* sender);

/* Describes a code of OrloCmdInit: what failed and what to do; "no error" for 0. Valid until the
 * next call of OrloCmdInit or OrloCmdError. */
const char* OrloCmdError(int code);

/* Closes the socket and removes its file. Harmless when it is not open. */
void OrloCmdFini(void);

/* ---- Logging and events -----------------------------------------------------------------*/

/* Opens syslog for `name` (facility daemon, with the process id); with `foreground` non-zero
 * every line goes to standard error as well. 0, or -1 for an empty name. `name` is copied (at
 * most 63 bytes). Call it before any thread is started. In the foreground it also ignores SIGPIPE,
 * unless the program has set that signal's action: a closed standard error must not end a daemon
 * that logs to it. */
int OrloLogInit(const char* name, unsigned foreground);

/* The amount of debug logging, 0 for none. The daemon reads and assigns it; threads that share it
 * use atomic accesses. */
extern unsigned OrloLogDebugLevel;

/* The journal of events, one JSON object per line with the members "time" (UTC, for example
 * "2024-05-01T12:00:00.000123Z"), "ident", "pid", "event", "category" and "args" (text, empty for
 * an event without arguments). */
#define ORLO_EVENT_JOURNAL ORLO_RUN_DIR "/events.jsonl"

/* Raises the platform event `event` of `category`; the arguments are formatted with `format` and
 * truncated to 4095 bytes. The event goes to syslog, at priority notice, as "Event: CATEGORY:
 * EVENT" and, if there are arguments, ": ARGUMENTS"; and to the journal. Any thread. Never fails;
 * errno is preserved. */
void OrloLogEvent(const char* event, const char* category, const char* format, ...)
    ORLO_PRINTF(3, 4);
void OrloLogEventNoArg(const char* event, const char* category);

/* ---- Tuning files -----------------------------------------------------------------------
 * One setting per line: `key = value`, `key=value` or `key value`. `#` starts a comment at the
 * beginning of a line or after white space outside quotes; blank lines, white space around key
 * and value, a UTF-8 byte-order mark and a CR before the line feed are ignored. A value may
 * be in double quotes, in which \" and \\ are escapes; what follows the closing quote must
 * be blank or a comment. A key is 1 to 1023 bytes without white space, `=`, `#` and `"`. An
 * empty value is written `key =` or `key = ""`. Malformed: a key alone, an empty key, an
 * unclosed quote, text after a closing quote, a NUL byte, a key too long, a line of over 16 MiB or
 * one that does not fit in memory.
 */
typedef struct OrloTuning OrloTuning;

/* A parser of `stream` from its current position. The parser reads ahead; the stream remains the
 * caller's. Null when out of memory or when `stream` is null. */
OrloTuning* OrloTuningAlloc(FILE* stream);

/* Result of OrloTuningParseLine. */
enum {
  ORLO_TUNING_END = -1,      /* no more lines, or the stream failed */
  ORLO_TUNING_SETTING = 0,   /* *key and *value are set */
  ORLO_TUNING_MALFORMED = 1, /* the line at OrloTuningCurrLine is malformed; reading can go on */
};

/* Reads the next setting; skips comments and blank lines. *key and *value belong to the parser and
 * are valid until its next call. After ORLO_TUNING_END, ferror(stream) distinguishes an error from
 * the end of the file. */
int OrloTuningParseLine(OrloTuning* tuning, const char** key, const char** value);

/* The 1-based number of the line last read; 0 before the first. */
int OrloTuningCurrLine(const OrloTuning* tuning);

/* Releases the parser; null is ignored. */
void OrloTuningRelease(OrloTuning* tuning);

/* The part of `key` after `prefix`, a pointer into `key`; null when `key` does not start with it.
 * Case matters. Any thread. */
const char* OrloMatchPrefix(const char* key, const char* prefix);

/* true|false, yes|no, on|off, enable|disable, enabled|disabled, 1|0, in any case and with white
 * space around. Any thread. */
bool OrloParseBool(const char* text, bool* result);

/* A decimal, or 0x hexadecimal, integer within [minimum, maximum], with an optional sign and
 * white space around, and nothing else. Any thread. */
bool OrloParseInt(const char* text, int64_t minimum, int64_t maximum, int64_t* result);

/* ---- CSV files --------------------------------------------------------------------------
 * RFC 4180 with LF or CRLF: commas separate fields; a field in double quotes can contain commas,
 * line ends and "" for a quote. A UTF-8 byte-order mark before a record is skipped, so that files
 * can be concatenated. Blank lines (nothing but white space) are skipped. The last line end may
 * be missing. A CR elsewhere is data.
 */
typedef struct CsvRecord CsvRecord;

/* The next record of `stream`, which the caller destroys. Null at the end of the file, at a read
 * error (ferror(stream) is then set) and when out of memory. A malformed record (a quote inside an
 * unquoted field, text after a closing quote, an unclosed quote, a NUL byte, over 16 MiB) or one
 * truncated by a read error is returned, and every read from it fails. */
CsvRecord* CsvRecordRead(FILE* stream);

/* Column `column` (from 0) as an unsigned decimal number of 32 bits: digits only, with white
 * space around. False when there is no such column or it is no such number. */
bool OrloCsvReadUInt(const CsvRecord* record, size_t column, uint32_t* result);

/* Column `column` as text, which lives as long as the record. False when there is none. */
bool OrloCsvReadStr(const CsvRecord* record, size_t column, const char** result);

void CsvRecordDestroy(CsvRecord* record);

/* ---- Watchdog ---------------------------------------------------------------------------*/

/* Flags of OrloLogInit and OrloWatchdogDaemon. */
#define ORLO_FOREGROUND 0x1u

/* Detaches the process from its terminal (unless ORLO_FOREGROUND is set) and registers it with the
 * supervisor: writes its process id, its name and `description`, one per line, to ORLO_RUN_DIR
 * "/NAME.pid". The file is not removed at exit, and not written where the process lacks permission
 * or while another instance has the command socket of that name open.
 *
 * Detaching: the call returns in a new process with its own session, "/" as working directory and
 * standard input, output and error on /dev/null. When it is registered, the calling process exits
 * with status 0. In the foreground, /dev/null is opened for closed standard descriptors. 0, or -1
 * with errno in the calling process. Call it before starting threads and before using the loop,
 * the command socket and the watchdog. */
int OrloWatchdogDaemon(const char* name, const char* description, unsigned flags);

/* A virtual watchdog timer. `elapsed` counts the seconds since its owner last stored 0 in it
 * (tickled it) to show that it is alive. */
typedef struct OrloWatchdogTimer {
  uint8_t reserved[28];
  uint32_t elapsed; /* offset 28; written by owner and platform, so access it atomically */
} OrloWatchdogTimer;

/* A new timer, not armed; null with errno on failure. One per process (EBUSY). Counting needs no
 * thread: signal SIGRTMAX - 1, with SA_RESTART, interrupts the calling thread once a second. Time
 * while the process is stopped does not count. */
OrloWatchdogTimer* OrloWatchdogTimerVirtCreate(void);

/* Arms `timer`: when `elapsed` exceeds `seconds`, the process ends (SIGABRT) with a syslog line at
 * priority crit: "Watchdog: no sign of life for N seconds (limit SECONDS), ending
 * the process". `elapsed` keeps its value. `seconds` below 1 disarms. 0, or -1 with errno. */
int OrloWatchdogTimerVirtSet(OrloWatchdogTimer* timer, int64_t seconds);

/* Disarms and releases the timer; null is ignored. */
void OrloWatchdogTimerVirtDestroy(OrloWatchdogTimer* timer);

/* ---- Statistics areas -------------------------------------------------------------------
 * Named memory that other processes read while its owner updates it: the file ORLO_STATS_DIR
 * "/NAME", mode 0644, with an OrloStatsHeader and the area. It appears with its header complete and
 * remains, with the last counts, when its owner ends.
 */
#define ORLO_STATS_DIR ORLO_RUN_DIR "/stats"
#define ORLO_STATS_MAGIC 0x5354414fu /* "OATS" read as bytes: 4f 41 54 53 */
#define ORLO_STATS_NAME_MAX 31u

typedef struct OrloStatsHeader {
  uint32_t magic;
  uint32_t headerSize; /* bytes to the area: sizeof(OrloStatsHeader), 64 */
  uint64_t size;       /* bytes of the area */
  int32_t ownerPid;
  uint32_t reserved;
  uint64_t ownerStart; /* the owner's start time in clock ticks: detects a reused pid */
  char name[ORLO_STATS_NAME_MAX + 1u];
} OrloStatsHeader;

typedef struct OrloStats OrloStats;

/* Creates the area `name` (as for OrloCmdInit, at most ORLO_STATS_NAME_MAX bytes) of `size` bytes
 * (1 to 1 GiB), all zero. Replaces an area of the same name; processes that have the old one mapped
 * keep it. The result is valid until the process ends. Null with errno on failure. Any thread. */
OrloStats* OrloStatsProdInit(const char* name, size_t size);

/* The area's first byte, aligned to 64. Null for a null argument. Any thread. */
void* OrloStatsArea(OrloStats* stats);

#ifdef __cplusplus
}
#endif

#endif
