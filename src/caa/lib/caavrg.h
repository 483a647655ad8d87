#ifndef CAA_LIB_CAAVRG_H
#define CAA_LIB_CAAVRG_H

// The program's door to the cluster registry: process-wide client handles (DEFAULT level, or
// REBOOT when DEFAULT cannot be had) and the reading of one key. A registry that cannot be
// reached gives a quiet result 2, so that callers take their fallback.
#include <cstdint>

struct prvrg_ctx;

namespace CAA {

struct CaaVRGKeys {
  static const char* const DefaultDir;  // "SYSTEM.vyn.user_default_dir"
};

// The DEFAULT handle, else the REBOOT one, opening them on first use; null when neither opens.
prvrg_ctx* caavrgtrygetctx();
void caavrgTerm();

// Reads a key's text value into val (*size bytes; on return the value's size). 0; 2 when there
// is no handle; else the client's result (4 for a missing key, which is not reported).
int caavrgReadVRGKey(const char* key, char* val, std::uint32_t* size, prvrg_ctx* pCtx);

// Logs a client failure; a bad handle (3) ends the process.
void rtivrg_report_vrg_error(prvrg_ctx* ctx, const char* modulename, const char* vrg_op_name, const char* key, int rc);

}  // namespace CAA

#endif
