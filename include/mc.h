/* SPDX-License-Identifier: MIT */
/*
 * mc.h - message channels between processes of one machine.
 *
 * A server opens a factory under a service name; clients connect to it under a name of their own and exchange
 * packets with it. A packet is a command word and typed arguments in one datagram of at most MC_PACKET_MAX bytes;
 * docs/protocol.md describes it byte by byte.
 *
 * Where the socket lives: a folder, the first of $MC_RUNTIME_DIR, $XDG_RUNTIME_DIR and /run/mc, holds "SERVICE.mc"
 * (the socket) and "SERVICE.mc.lock" (held by the running server). Who may connect: the socket's owner, group and mode,
 * which $MC_SOCKET_USER, $MC_SOCKET_GROUP and $MC_SOCKET_MODE (octal) change; 0660 of the server's user and group
 * without them. A server started with a socket of the service manager (LISTEN_FDS) uses that one as it is.
 *
 * Descriptors that come with packets are refused. Kernels before Linux 6.16 let them through: there the server side
 * forks a process for a moment, which closes them.
 *
 * Threads: a factory, its connections and their packets belong to the thread that runs the default GLib main
 * context. A client connection belongs to one thread at a time. Nothing here is locked.
 *
 * Ownership is stated at each function. Strings handed to callbacks stay the library's.
 */
#ifndef MC_H
#define MC_H

#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Largest packet in bytes, header and padding included. A larger datagram is a fault of its sender. */
#define MC_PACKET_MAX 4096
/* Longest name of a client or a service in bytes, without the NUL. */
#define MC_NAME_MAX 255
/* Most arguments in one packet. */
#define MC_ARGS_MAX 32

typedef struct mc_factory mc_factory;
typedef struct mc_connection mc_connection;
typedef struct mc_packet mc_packet;

/* ---- packets ---------------------------------------------------------------------------------------------- */

/* A new packet without arguments and with an empty command word (what a reply carries). `flags` is reserved: 0.
 * Owned by the caller until it is returned from a handler or given to mc_packet_free. NULL without memory. */
mc_packet *mc_packet_new(int flags);
/* The same with a command word (client requests). NULL when the word does not fit or without memory. */
mc_packet *mc_packet_new_command(const char *command);
void mc_packet_free(mc_packet *packet); /* NULL is allowed */

/* The command word; empty in a reply. Owned by the packet. */
const char *mc_packet_command(const mc_packet *packet);
/* The argument types: one letter each, 'i' or 's'. Owned by the packet. */
const char *mc_packet_signature(const mc_packet *packet);

/*
 * Decodes arguments by `signature`: for each 'i' an int32_t *, for each 's' a const char ** (the string stays owned
 * by the packet, and is valid as long as it). Decoding stops at the first letter that the packet does not carry at
 * that place. Returns the number of values decoded; variables behind that number are left untouched. Further
 * arguments of the packet are ignored.
 */
int mc_packet_parse_args(const mc_packet *packet, const char *signature, ...);

/* Appends arguments: for each 'i' an int32_t, for each 's' a const char *. All or nothing: returns the number of
 * values added, or -1 (letter unknown, NULL string, packet full) with the packet as it was. */
int mc_packet_build_args(mc_packet *packet, const char *signature, ...);

/* Makes it a packet of this command word and `n` integers, whatever it was before: one packet serves any number of
 * requests, and memory is taken once. Returns 0, or -1 when they do not fit, with the packet as it was. */
int mc_packet_rewrite(mc_packet *packet, const char *command, const int32_t *values, int n);

/* ---- server side ------------------------------------------------------------------------------------------ */

/* A client has connected and told its name. Runs on the main loop's thread. The connection is the library's;
 * the callback attaches it with mc_glib_init and sets its handlers, or refuses it with mc_close. */
typedef void (*mc_connection_func)(mc_factory *factory, mc_connection *connection, void *user_data);

/* A request has arrived. `request` is the library's and ends with the call. The packet returned (or NULL for no
 * answer) goes to the client and is freed by the library. It is a packet of mc_packet_new, without a command word. */
typedef mc_packet *(*mc_handler_func)(mc_connection *connection, mc_packet *request);

/* The client is gone, or was dropped for a fault. Runs once; the socket is closed already. The handler calls mc_close
 * (and may return its result). Without such a handler the library closes the connection itself. */
typedef int (*mc_hup_func)(mc_connection *connection);

/*
 * Opens the service. Listens at once, accepts from the default GLib main context. Takes over the stale socket of a
 * dead server, never that of a live one. `reserved` must be NULL. Returns NULL after one line in the log, which says
 * what is in the way. Close with mc_factory_close.
 */
mc_factory *mc_factory_open(const char *service_name, mc_connection_func callback, void *user_data, void *reserved);
/* Stops listening, removes the socket (not one of the service manager's) and closes every connection of the factory
 * without calling hang-up handlers. NULL is allowed. */
void mc_factory_close(mc_factory *factory);

/* Attaches a connection to the default GLib main context, at the priority of idle sources (200): requests and idle
 * work take turns. Each turn handles a bounded batch of the packets that have arrived. Returns 0, or -1. */
int mc_glib_init(mc_connection *connection);
/* `command` names the word that `handler` serves; the empty word stands for every word. The last one set for a word
 * wins; a word of its own goes before the empty one. `handler` NULL removes. */
int mc_set_handler(mc_connection *connection, const char *command, mc_handler_func handler, void *reserved);
int mc_set_hup_handler(mc_connection *connection, mc_hup_func handler, void *reserved);
/* One pointer per connection, the caller's; NULL at first. `flags` is reserved: 0. */
int mc_set_user_data(mc_connection *connection, void *user_data, int flags);
void *mc_user_data(const mc_connection *connection);

/* The name that the client gave. Owned by the connection. */
const char *mc_connection_name(const mc_connection *connection);
/* Who the client is, as the kernel told at connect; -1 where unknown. For a socketpair: who made the pair. */
pid_t mc_connection_pid(const mc_connection *connection);
uid_t mc_connection_uid(const mc_connection *connection);

/* Closes and frees a connection, client or server side; the hang-up handler is not called. May be called from
 * inside any of the connection's handlers. Returns 0. NULL is allowed. */
int mc_close(mc_connection *connection);

/*
 * A server-side connection that belongs to no factory: over `fd`, a connected SOCK_SEQPACKET socket (one end of a
 * socketpair handed to a child, say; owned by the connection from now on), or with fd -1 over nothing, for handlers
 * that are called directly. The name is given here; no greeting is expected. NULL without memory or with a name that
 * is too long (fd is then still the caller's).
 */
mc_connection *mc_connection_new(int fd, const char *name);

/* Where the library reports a fault: one line without a newline each time. The default writes it to standard error. */
typedef void (*mc_log_func)(const char *line);
void mc_set_log(mc_log_func log);

/* ---- client side ------------------------------------------------------------------------------------------ */

/* Connects to a service under a name. NULL with errno set: ENOENT or ECONNREFUSED (no server listens),
 * EACCES (not allowed), ENAMETOOLONG, EMFILE, ... Close with mc_close. */
mc_connection *mc_connect(const char *service_name, const char *client_name);
/* mc_connect blocks while the server has too many connections to take. The same, blocking for at most timeout_ms
 * milliseconds (-1: for ever, 0: not at all); NULL with ETIMEDOUT then. */
mc_connection *mc_connect_in_time(const char *service_name, const char *client_name, int timeout_ms);

/* Sends a request and does not wait for an answer; blocks while the server is behind. The packet stays the caller's.
 * Answers that have arrived are thrown away: nobody waits for them any more.
 * Returns 0, or -1 with errno set (EPIPE: the server is gone; EINVAL: not a connection of mc_connect). */
int mc_send(mc_connection *connection, const mc_packet *request);
/* The same, blocking for at most timeout_ms milliseconds (-1: for ever); -1 with ETIMEDOUT, and nothing sent, then. */
int mc_send_in_time(mc_connection *connection, const mc_packet *request, int timeout_ms);
/* The same for a request that the server never answers, and whose serial number may be written into the packet: one
 * system call. Only while answers to earlier requests may still come are they looked for. */
int mc_send_unanswered(mc_connection *connection, mc_packet *request, int timeout_ms);

/* Sends a request and waits for its answer, for at most timeout_ms milliseconds (-1: for ever). Answers to earlier
 * requests that were given up are skipped. Returns the answer, the caller's to free, or NULL with errno set
 * (ETIMEDOUT; EPIPE: the server is gone; EPROTO: the answer is malformed).
 * A request that the server does not answer always runs into the time-out. */
mc_packet *mc_call(mc_connection *connection, const mc_packet *request, int timeout_ms);

/* Waits in the same way for the answer to the last request of mc_send. With timeout_ms 0 it only looks: ETIMEDOUT when
 * the answer is not there yet. Once it has been taken there is no other. */
mc_packet *mc_answer(mc_connection *connection, int timeout_ms);
/* The same into a packet of the caller's. Returns 0, or -1 with errno set: the packet is then to be written again, by
 * mc_packet_rewrite or another answer, before it is read. */
int mc_take_answer(mc_connection *connection, mc_packet *answer, int timeout_ms);

/* The socket, to poll for hang-up (POLLHUP) in a main loop of the caller's. Owned by the connection. */
int mc_fd(const mc_connection *connection);

#ifdef __cplusplus
}
#endif
#endif
