#ifndef PLATFORM_ENVS_ENVS_H
#define PLATFORM_ENVS_ENVS_H

// The environment service: the process-wide knowledge of where the cluster software's home is.
// The command tells it the home once, early; the catalog and trace layers ask it later.
#include <string>

struct prvrg_ctx;

struct envs_ctx {
  prvrg_ctx* vrg;  // the registry handle the caller had open, or null; kept for the service's own lookups
  bool open;
};

// 0 on success, 1 when the context cannot be made.
int envs_init(envs_ctx* ctx, prvrg_ctx* vrg);
// 0 when the home is accepted (a non-empty absolute path), 1 when refused.
int envs_set_zelkor_home(envs_ctx* ctx, const char* home);
int envs_close(envs_ctx* ctx);

// The home told to the service, else the value of ZEL_VYN_HOME in the environment, else empty.
std::string envs_get_zelkor_home();

#endif
