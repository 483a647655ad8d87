#ifndef PLATFORM_IDH_IDH_H
#define PLATFORM_IDH_IDH_H

// Identity handles: owned copies of user and group ids of the OS services layer.
// idhinit and idhterm bracket their use; a second idhinit does no harm.
#include "platform/osl/osl.h"

void idhinit();
void idhterm();

osl_user_id* idh_allocUserID();
osl_privgrp_id* idh_allocPrivGrpID();
// A handle for a name: 0, or an error number (ENOENT for an unknown name).
int idh_mkUserID(const char* name, osl_user_id** out);
int idh_mkPrivGrpID(const char* name, osl_privgrp_id** out);
osl_user_id* idh_cpUserID(const osl_user_id* id);
osl_privgrp_id* idh_cpPrivGrpID(const osl_privgrp_id* id);
void idh_freeUserID(osl_user_id* id);
void idh_freePrivGrpID(osl_privgrp_id* id);

// Writes a formatted text to standard error.
void idh_eprintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

#endif
