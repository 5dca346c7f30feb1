/* orlo_sdk.h - the sensor platform's SDK, as the daemons on a sensor use it.
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
 * One loop a process. Callbacks run one at a time on the thread that called OrloLoop.
 * `value` is the signal number, the timer's interval in seconds, or the readable descriptor.
 * A callback's result is ignored.
 */
typedef int (*OrloLoopCallback)(int value, void* userData);

/* Runs `callback` in the loop, never in signal context, whenever signal `signo` arrives.
 * The signal is blocked in the calling thread from here on, so start threads afterwards.
 * A second call for the same signal replaces the callback. 0, or -1 with errno. */
int OrloLoopSignalAdd(int signo, OrloLoopCallback callback, void* userData);

/* Runs `callback` every `seconds` seconds, first after one interval. Expiries missed while a
 * callback was slow are delivered once, not made up for. 0, or -1 with errno (EINVAL below 1 and
 * above INT_MAX). */
int OrloLoopTimerAdd(int64_t seconds, OrloLoopCallback callback, void* userData);

/* Runs `callback` whenever `fd` is readable (level-triggered). The descriptor stays the
 * caller's; closing it ends the callbacks. 0, or -1 with errno (EEXIST for one that is watched,
 * EPERM for a regular file). */
int OrloLoopFdAdd(int fd, OrloLoopCallback callback, void* userData);

/* Runs callbacks until one calls OrloLoopQuit. 0, or -1 with errno when waiting failed. */
int OrloLoop(void);

/* Makes OrloLoop return once the current callback has returned. Any thread, a signal handler too
 * once something has been added. A call made while no loop runs makes the next OrloLoop return at
 * once. */
void OrloLoopQuit(void);

/* ---- Command socket ---------------------------------------------------------------------
 * A Unix datagram socket at ORLO_RUN_DIR "/NAME.sock", mode 0600.
 */
#define ORLO_RUN_DIR "/run/orlo"

/* The sender of a command, as OrloCmdRecv fills it and OrloCmdResp takes it back: 116 bytes,
 * the sender's socket path as text from byte 2 on (empty for a sender that has bound no name). */
typedef struct OrloCmdSender {
  struct sockaddr_un address; /* 110 bytes */
  uint16_t reserved;
  uint32_t addressLength; /* as recvfrom gave it, so that a response goes back unchanged */
} OrloCmdSender;

/* Opens the command socket of the daemon `name` (1 to 64 of letters, digits and "._-", the first
 * no dot), creating ORLO_RUN_DIR when it is missing. A socket file that nobody listens on is
 * replaced; a live one is refused. Instances are told apart by a lock on ORLO_RUN_DIR
 * "/NAME.lock", which stays behind. `flags` is reserved, 0. 0, or an error code for
 * OrloCmdError. */
int OrloCmdInit(const char* name, int flags);

/* The socket's descriptor, non-blocking, or -1 before OrloCmdInit and after OrloCmdFini. */
int OrloCmdFd(void);

/* Receives one datagram without blocking: its number of bytes (at most `size`: what is longer
 * is cut), 0 when there was none or it was empty. *sender, which may be null, is set unless there
 * was none. `flags` is reserved, 0. */
size_t OrloCmdRecv(void* buffer, size_t size, OrloCmdSender* sender, int flags);

/* Sends `length` bytes to `sender` without blocking: the bytes sent, or a negative errno
 * (-EDESTADDRREQ for a sender without a name, -ECONNREFUSED or -ENOENT for one that is gone,
 * -EAGAIN for one that does not read). */
int OrloCmdResp(const void* bytes, uint16_t length, const OrloCmdSender* sender);

/* A text for a code of OrloCmdInit that says what failed and what to do; "no error" for 0.
 * Borrowed: valid until the next call of OrloCmdInit or OrloCmdError. */
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

/* How chatty debug logging is; 0 is silent. The daemon both reads and assigns it. Threads that
 * share it use atomic accesses. */
extern unsigned OrloLogDebugLevel;

/* The journal of events, one JSON object a line with the members "time" (UTC, for example
 * "2024-05-01T12:00:00.000123Z"), "ident", "pid", "event", "category" and "args" (text, empty for
 * an event without arguments). */
#define ORLO_EVENT_JOURNAL ORLO_RUN_DIR "/events.jsonl"

/* Raises the platform event `event` of `category`; the arguments are formatted with `format` and
 * cut at 4095 bytes. The event goes to syslog, at priority notice, as "Event: CATEGORY: EVENT" and,
 * if there are arguments, ": ARGUMENTS"; and to the journal. Any thread. Never fails; errno is
 * preserved. */
void OrloLogEvent(const char* event, const char* category, const char* format, ...)
    ORLO_PRINTF(3, 4);
void OrloLogEventNoArg(const char* event, const char* category);

/* ---- Tuning files -----------------------------------------------------------------------
 * One setting a line: `key = value`, `key=value` or `key value`. `#` starts a comment at the
 * beginning of a line or after white space outside quotes; blank lines, white space around key
 * and value, a UTF-8 byte-order mark and a CR before the line feed are ignored. A value may
 * stand in double quotes, in which \" and \\ are escapes; what follows the closing quote must
 * be blank or a comment. A key is 1 to 1023 bytes without white space, `=`, `#` and `"`. An
 * empty value is written `key =` or `key = ""`. Malformed: a key alone, an empty key, an
 * unclosed quote, text after a closing quote, a NUL byte, a key too long, a line of over 16 MiB or
 * one that does not fit in memory.
 */
typedef struct OrloTuning OrloTuning;

/* A parser that reads `stream` from where it stands, and ahead of the lines it gives; the stream
 * stays the caller's. None when memory is short or `stream` is null. */
OrloTuning* OrloTuningAlloc(FILE* stream);

/* Result of OrloTuningParseLine. */
enum {
  ORLO_TUNING_END = -1,      /* no more lines, or the stream failed */
  ORLO_TUNING_SETTING = 0,   /* *key and *value are set */
  ORLO_TUNING_MALFORMED = 1, /* the line at OrloTuningCurrLine is malformed; reading can go on */
};

/* Reads on to the next setting (comments and blank lines are passed over). *key and *value
 * belong to the parser and are valid until its next call. */
int OrloTuningParseLine(OrloTuning* tuning, const char** key, const char** value);

/* The 1-based number of the line last read; 0 before the first. */
int OrloTuningCurrLine(const OrloTuning* tuning);

/* Releases the parser; null is ignored. */
void OrloTuningRelease(OrloTuning* tuning);

/* The part of `key` behind `prefix`, a pointer into `key`; null when it does not begin so.
 * Case matters. Any thread. */
const char* OrloMatchPrefix(const char* key, const char* prefix);

/* true|false, yes|no, on|off, enable|disable, enabled|disabled, 1|0, in any case and with white
 * space around. Any thread. */
bool OrloParseBool(const char* text, bool* result);

/* A decimal, or 0x hexadecimal, integer within [minimum, maximum], with an optional sign and
 * white space around, and nothing else. Any thread. */
bool OrloParseInt(const char* text, int64_t minimum, int64_t maximum, int64_t* result);

/* ---- CSV files --------------------------------------------------------------------------
 * RFC 4180 with LF or CRLF: fields parted by commas, a field in double quotes may hold commas,
 * line ends and "" for a quote. A UTF-8 byte-order mark before a record is passed over, so that
 * files can be joined. Blank lines (nothing but white space) are skipped. The last line end may
 * be missing. A CR elsewhere is data.
 */
typedef struct CsvRecord CsvRecord;

/* The next record of `stream`, to be destroyed by the caller; null at the end of the file, when
 * nothing could be read, or when memory is short. A record that breaks the rules (a quote inside a
 * bare field, text after a closing quote, an unclosed quote, a NUL byte, over 16 MiB) or that a
 * read error cut short is returned too, and every read from it fails. */
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

/* Detaches the process from its terminal (unless ORLO_FOREGROUND is set) and registers it with
 * the supervisor: ORLO_RUN_DIR "/NAME.pid" holds its process id, its name and `description`, one a
 * line; it is left behind at the end, and not written where this process may not write or while
 * another instance has the command socket of that name open.
 *
 * Detaching: the calling process exits with status 0 once a new one stands, in a session of its
 * own, with "/" as working directory, standard input, output and error on /dev/null, and
 * registered; the call returns there. In the foreground, standard descriptors that are closed are
 * put on /dev/null. 0, or -1 with errno, in the calling process. Call it before any thread is
 * started and before the loop, the command socket and the watchdog are used. */
int OrloWatchdogDaemon(const char* name, const char* description, unsigned flags);

/* A virtual watchdog timer. `elapsed` counts the seconds since its owner last stored 0 there;
 * storing 0 (tickling) is how the owner says that it is alive. */
typedef struct OrloWatchdogTimer {
  uint8_t reserved[28];
  uint32_t elapsed; /* offset 28; written by owner and platform, so access it atomically */
} OrloWatchdogTimer;

/* A new timer, not armed; null with errno when it cannot be had. One a process (EBUSY). Counting
 * needs no thread: a signal, SIGRTMAX - 1 with SA_RESTART, interrupts the calling thread once a
 * second. Time for which the process is stopped is not counted. */
OrloWatchdogTimer* OrloWatchdogTimerVirtCreate(void);

/* Arms `timer`: once `elapsed` passes `seconds` the process is ended (SIGABRT) with a syslog line
 * that says why, at priority crit: "Watchdog: no sign of life for N seconds (limit SECONDS), ending
 * the process". `elapsed` is left as it stands. `seconds` below 1 disarms. 0, or -1 with errno. */
int OrloWatchdogTimerVirtSet(OrloWatchdogTimer* timer, int64_t seconds);

/* Disarms and releases the timer; null is ignored. */
void OrloWatchdogTimerVirtDestroy(OrloWatchdogTimer* timer);

/* ---- Statistics areas -------------------------------------------------------------------
 * Named memory that other processes read while its owner updates it: the file
 * ORLO_STATS_DIR "/NAME", mode 0644, an OrloStatsHeader followed by the area. It appears with its
 * header complete and stays behind when its owner ends, with the last counts in it.
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
  uint64_t
      ownerStart; /* the owner's start time in clock ticks, so that a reused pid is told apart */
  char name[ORLO_STATS_NAME_MAX + 1u];
} OrloStatsHeader;

typedef struct OrloStats OrloStats;

/* Creates the area `name` (as for OrloCmdInit, at most ORLO_STATS_NAME_MAX bytes) of `size` bytes
 * (1 to 1 GiB), all zero, replacing one of the same name: who has that one mapped keeps it. The
 * result lives until the process ends. Null with errno on failure. Any thread. */
OrloStats* OrloStatsProdInit(const char* name, size_t size);

/* The area's first byte, aligned to 64. Null for a null argument. Any thread. */
void* OrloStatsArea(OrloStats* stats);

#ifdef __cplusplus
}
#endif

#endif
