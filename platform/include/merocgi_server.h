/* One program, two modes: a CGI program when a web server executes it for
 * a request, a FastCGI fork server when it is started as one.
 *
 * MeroCgiServe decides once, at start, in this order:
 *   1. GATEWAY_INTERFACE is set: a CGI request. The command line is not
 *      read, because some web servers turn a query string without '=' into
 *      command-line words.
 *   2. MERO_FCGI_HANDOVER is set: this image was re-executed by a fork
 *      server (SIGHUP) and takes over its socket and its running children.
 *   3. Socket activation (LISTEN_PID is this process, LISTEN_FDS >= 1):
 *      the server listens on descriptor 3.
 *   4. Descriptor 0 is a listening socket (how web servers spawn FastCGI
 *      programs): the server listens there.
 *   5. --listen unix:PATH, 127.0.0.1:PORT or [::1]:PORT on the command line.
 *   6. Otherwise a CGI request, run once.
 * Options (modes 2 to 5): --max-children N (default 16, at most 1024),
 * --request-timeout SECONDS (default 300), --help.
 *
 * In server mode every request runs in a child forked for it, with the
 * request's CGI variables from its FastCGI parameters set in its
 * environment (over the server's own, from which every CGI request variable
 * was removed at start; any other parameter, such as MERO_APPLIANCE_ROOT or
 * a loader variable, is dropped: whoever reaches the socket sends them, so
 * the operator's settings come from the server's environment only), the
 * connection as its request I/O (mero_request_io.h), and `handle` called
 * exactly as in a CGI process; the child then exits. The server itself
 * opens nothing a request uses and reads no request data. Log lines go to
 * syslog and standard error.
 *
 * The socket must be reachable by the web server only (a unix socket's
 * mode and directory; a loopback TCP port trusts every local user). Each
 * connection carries one request. The response reaches the web server
 * through `stdout`: std::cout and writes to descriptor 1 do not. A peer
 * has 30 s to send a request's parameters; the body may take the whole
 * request time limit.
 *
 * Answers the process's exit status: 0 after a CGI request or a clean stop,
 * 1 when the server could not start, 2 for a bad command line. */
#ifndef MEROCGI_SERVER_H
#define MEROCGI_SERVER_H

#include "mero_export.h"

MERO_EXTERN_C_BEGIN

MERO_EXPORT int MeroCgiServe(int argc, char** argv, void (*handle)(void* arg), void* arg);

MERO_EXTERN_C_END

#endif /* MEROCGI_SERVER_H */
