// The one way the library starts threads: detached or joinable, always with
// an explicit stack size. A router has little memory; glibc's default of
// 8 MiB virtual per thread is far more than any thread here needs. The
// deepest paths (cJSON parsing and printing, getaddrinfo, formatted logging)
// stay well under 64 KiB; 256 KiB leaves room for nested JSON up to cJSON's
// nesting limit. Sanitizer builds get four times as much.
#pragma once

#include <pthread.h>

#include <cstddef>

namespace qdq {

std::size_t thread_stack_size();

// Starts fn(arg) on a new thread with the library's stack size. With
// `detached` the thread is created detached; `name` (a string literal of at
// most 15 characters) is what `ps -T` shows for it. Returns 0 or an errno
// value; on failure fn never runs.
int start_thread(pthread_t *tid, void *(*fn)(void *), void *arg, bool detached, const char *name = nullptr);

// Workers started per message or event. A flood of events, channel
// messages or expiring timers must not be able to start threads without
// limit (each takes a stack, and a silent peer can hold one for tens of
// seconds), so each kind has a cap on its live threads; beyond it
// start_worker refuses with EAGAIN and logs one line, and the caller drops
// or retries the work as it would after any thread-creation failure.
// Local TCP workers are not counted here: their slot table already bounds
// them at five.
enum class Work { event, channel, expiry, push, command };
inline constexpr int kWorkKinds = 5;

// Live-thread cap of each kind (see docs/hardening.md).
int worker_cap(Work kind);
// Workers of `kind` that exist now: running, or finished and about to be
// joined (a place is free again only once its thread is gone).
int live_workers(Work kind);
int live_workers_total();

// Joins the workers that have finished, giving their places (and stacks)
// back. Starts and counts do it; the timer tick does it every second so
// that a quiet gateway does not keep finished workers' stacks.
void reap_workers();

// Starts fn(arg) as a worker of `kind` (joined by the library itself). Returns 0, EAGAIN at the
// cap, or another errno value; on any failure fn never runs and arg stays
// the caller's.
int start_worker(Work kind, void *(*fn)(void *), void *arg);

// Work that must not be lost at the cap (channel messages, shell commands)
// goes through a queue of documented depth behind the capped workers: with
// every place taken, fn(arg) waits there, first in first out, for the next
// worker of its kind that finishes. Returns 0 (started or queued), EAGAIN
// when the queue is full too (logged), or another errno value; on failure
// fn never runs and arg stays the caller's. Queued work runs on the
// finishing worker's thread; its workers are never cancelled.
int submit_work(Work kind, void *(*fn)(void *), void *arg);
// Depth of the queue of `kind` (0: none, refused at the cap).
int queue_depth(Work kind);
// Work of `kind` waiting in its queue.
int queued_work(Work kind);

// A thread id as a number for log lines (pthread_t is an integer or a
// pointer, depending on the C library).
inline unsigned long thread_number(pthread_t t) { return (unsigned long)t; }

}  // namespace qdq
