#ifndef EVM_LIBEVM_EVM_H
#define EVM_LIBEVM_EVM_H

// The event client: what a program includes to make, read, check and write events.
// Plain functions on plain structures; every operation returns an EvmStatus_t (0 is success)
// and hands results back through out-arguments.
//
// The connection and posting layer builds on the seams here: the block layout (evm_wire.h),
// _evmPrepareForOutput / _evmFillTransportHeader for sending, _evmMakeEvent and the checks of
// evm_check.h for receiving, _evmMerge for posting with a template, and
// _EvmItemSetAutoWithCache with a connection's EvmIdentityCache_t for stamping.
#include "evm/libevm/evm_types.h"
#include "evm/libevm/evm_wire.h"
#include "evm/libevm/evm_log.h"
#include "evm/libevm/evm_misc.h"
#include "evm/libevm/evm_event.h"
#include "evm/libevm/evm_check.h"
#include "evm/libevm/evm_record.h"
#include "evm/libevm/evm_itempkg.h"
#include "evm/libevm/evm_item.h"
#include "evm/libevm/evm_var.h"
#include "evm/libevm/evm_io.h"
#include "evm/libevm/evm_msg.h"
#include "evm/libevm/evm_auto.h"
#include "evm/libevm/evm_post.h"
#include "evm/libevm/evm_format.h"

#endif
