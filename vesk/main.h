// The agent's entry: command line, start-up and shut-down sequence, and the handlers given to the
// event loop, which dispatch each event to the object registered with it by its type tag.
#pragma once
#include <csignal>
#include <ctime>

extern const char* const g_app_name;

// Parses the command line around the loading of the configuration file. Exits the process with
// status 1 on any failure of either (printing "configuration check FAILED" last in check mode);
// returns 0 otherwise.
int setup_config(int argc, char** argv);
// Check mode (-t/--check) after setup_config: runs the configuration checks, prints
// "configuration OK" or the failure to standard error; the exit status, 0 or 1.
int check_only();
// Daemon mode, log file, pid file, user, working directory, CPU and core dumps; 0 or a failure code.
int runtime_setup();
// Starts the event loop, the listeners and the UDP channel; the first failure stops the sequence.
int app_start();
// Frees what is left, destroys the event loop and removes the pid file. Safe after a failed start.
void app_shutdown();

// Prints the usage text to standard error and exits with `status`.
[[noreturn]] void usage(int status);

// Event-loop callbacks.
int on_read(int fd, int err, void* udata, void* aux);
int on_write(int fd, int err, void* udata, void* aux);
int on_error(int fd, int err, void* udata, void* aux);
struct rui_socket_ctx;
// Accepts on a readable listener; 1 when the process is quitting (ends the loop), else 0.
int on_srv_accept(int fd, int err, rui_socket_ctx* listener, void* aux);
int on_pp();
int do_idle_tasks();
void upd_tmout(struct timespec* ts);

// The `err` word of a handler as text: "HUP", "ERROR" or "data".
const char* err_word(int err);

// The whole program; main() only calls this.
int vsk_main(int argc, char** argv);
