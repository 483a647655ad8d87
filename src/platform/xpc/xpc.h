#ifndef PLATFORM_XPC_XPC_H
#define PLATFORM_XPC_XPC_H

// The message transport: whole messages over stream sockets. An address string names the
// endpoint:
//   (ADDRESS=(PROTOCOL=ipc)(KEY=k))           the Unix stream socket $VYN_IPC_DIR/k
//                                             (directory default /var/tmp/.vyn)
//   (ADDRESS=(PROTOCOL=tcp)(HOST=h)(PORT=p))  TCP; PORT 0 or none when listening picks a free one
// On the wire each message is its own bytes, back to back, nothing else. A message starts with
// the 48-byte transport header whose first 4 bytes (host order) give the whole message's length,
// header included; the transport reads that word to find where a message ends and leaves the
// rest of the header to its users.
//
// Every call returns an xpcret code. A broken pipe never raises SIGPIPE.
#include <cstddef>
#include <cstdint>
#include <memory>

enum xpcret {
  xpcretSUCC = 0,
  xpcretTIMEOUT = 1,
  xpcretFAIL = 2,
  xpcretNSERR = 3,
  xpcretNOMEM = 4,
  xpcretBADARG = 5,
  xpcretCONNINV = 6,
  xpcretNODATA = 7,
  xpcretNOEVENT = 8,   // a wait ended without input, by a signal
  xpcretNOENDPT = 9,   // no such endpoint (nobody listens there)
  xpcretRMTDISC = 10,  // the peer closed the connection
  xpcretRMTFAIL = 11,  // the connection broke (reset, error)
  xpcretEMSGSZ = 12,   // the message is longer than the buffer; its length is in the first word
  xpcretREFUSED = 13,
  xpcretNOTAUTH = 14,
  xpcretNOCONN = 15,
  xpcretBUF2SHORT = 16,
  xpcretINVALID = 17,    // the peer sent bytes that are no message (length below the header)
  xpcretENDPTUSED = 18,  // another process listens on that address
  xpcretPOSTED = 19,
};

constexpr std::uint32_t XPC_HEADER_SIZE = 48;
// A longer message is taken for garbage: its sender is cut off rather than buffered.
constexpr std::uint32_t XPC_MAX_MESSAGE = 64u * 1024u * 1024u;

// Flags of xpcreceive and xpcselect.
enum : int {
  XPC_WAIT_FOREVER = 0x20,  // no time limit (the time-out is ignored)
  XPC_WAIT_TIMED = 0x40,    // wait at most the given milliseconds
};
// Flags of xpcgetaddr.
enum : int { XPC_ADDR_PEER = 0x40 };

struct xpcctx;
struct xpcugblm;
struct xpccon;

// Called by xpcselect for each connection with input; may be null.
typedef void (*xpcevthdlr)(xpcugblm* ugblm, xpccon* con);

// The process's transport context. The unused arguments are kept for the callers' sake.
int xpcinit(int unused1, int unused2, xpcctx** ctx, int flags);
int xpcterm(xpcctx* ctx);
// A group of connections that one xpcselect waits on.
int xpcugblmini(xpcctx* ctx, xpcugblm** ugblm, int flags);
int xpcugblmterm(xpcugblm* ugblm);

// Connects to `address`; the connection joins `ugblm`. `seconds` bounds a TCP connect
// (0: 30 s). Nobody listening: xpcretNOENDPT (no socket file) or xpcretREFUSED.
int xpcconnect(xpcugblm* ugblm, const char* address, int unused1, xpccon** con, void* unused2,
               void* unused3, void* unused4, void* unused5, int seconds, int options);
// Listens on `address`. A local listener makes the socket directory (mode 0755) if it is
// missing and refuses, with xpcretNOTAUTH, one that is a symlink, not its user's, or writable by
// group or others. It holds the lock file <key>.lock beside its socket while it listens: a
// second listener gets xpcretENDPTUSED, and a socket file found under the lock is stale and
// replaced. The socket file is made with mode 0666.
int xpclisten(xpcugblm* ugblm, const char* address, int unused, xpccon** lcon, int flags);
// Takes the next connection of a listener, waiting for one.
int xpcanswer(xpccon* lcon, int unused1, xpccon** con, int unused2, int unused3, int unused4,
              int unused5, int unused6, int flags);
// Own (listening) address, or with XPC_ADDR_PEER the peer's, as an address string.
int xpcgetaddr(xpccon* con, char* buffer, std::size_t size, int flags);
// Closes and frees the connection (listener: also removes its socket file).
int xpcdisc(xpccon* con);

// Sends one whole message of `length` bytes (at least the header, whose length word must say
// `length`). Safe to call from several threads on one connection: messages don't interleave.
int xpcsend(xpccon* con, const void* buffer, std::uint32_t length);
// Receives one whole message into `buffer`. A message longer than `length` stays queued: the
// result is xpcretEMSGSZ with its true length stored in the buffer's first word (`length` >= 4).
// `timeoutMs` applies with XPC_WAIT_TIMED (result xpcretTIMEOUT); otherwise the call waits.
// Interrupted by a signal: xpcretNOEVENT. `*received`, if given, gets the message's length.
int xpcreceive(xpccon* con, void* buffer, std::uint32_t length, int timeoutMs, int intervalMs, int flags,
               std::uint32_t* received = nullptr);
// Waits for input on any connection of `ugblm`: xpcretSUCC when a message (or the peer's end)
// is there, xpcretTIMEOUT after `timeoutMs` with XPC_WAIT_TIMED, xpcretNOEVENT on a signal.
int xpcselect(xpcugblm* ugblm, xpcevthdlr handler, int timeoutMs, int intervalMs, int flags);

// The socket underneath, for programs that run their own event loop; -1 for null.
int xpcfd(const xpccon* con);
// The path of the local socket for an ipc key (no check that it exists).
int xpcipcpath(const char* key, char* buffer, std::size_t size);

// One owner for each handle of the transport: whoever holds one holds it in these, so that every
// exit closes it exactly once.
struct XpcConClose {
  void operator()(xpccon* c) const {
    if (c != nullptr) xpcdisc(c);
  }
};
struct XpcGroupEnd {
  void operator()(xpcugblm* g) const {
    if (g != nullptr) xpcugblmterm(g);
  }
};
struct XpcCtxEnd {
  void operator()(xpcctx* c) const {
    if (c != nullptr) xpcterm(c);
  }
};
using XpcCon = std::unique_ptr<xpccon, XpcConClose>;
using XpcGroup = std::unique_ptr<xpcugblm, XpcGroupEnd>;
using XpcCtx = std::unique_ptr<xpcctx, XpcCtxEnd>;

#endif
