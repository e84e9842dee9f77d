// rt: the event loop of the main thread. rt_run() waits on the registered descriptors and timers and
// calls their callbacks, until rt_shutdown(). rt_shutdown is sticky: called before rt_run, it makes
// rt_run return at once. All functions are safe to call from any thread.
#pragma once

typedef void (*rt_fd_cb_t)(void* arg, int fd);
typedef void (*rt_timer_cb_t)(void* arg);

// Registers `fd` for readability; a descriptor can be registered once. 0 or -1.
int rt_handle_fd(int fd, rt_fd_cb_t cb, void* arg);
int rt_unhandle_fd(int fd);
// Calls `cb` once after `delay_ms`. Returns an id > 0 for rt_unsched, or -1.
long rt_sched(long delay_ms, rt_timer_cb_t cb, void* arg);
int rt_unsched(long id);
void rt_run();
void rt_shutdown();
bool rt_is_shutdown();
