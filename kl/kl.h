// File: kl/kl.h
//
// The umbrella header: includes every public header of the kl library. A service may
// include this or only the subsystem headers it uses.
#ifndef KL_KL_H_
#define KL_KL_H_

#include "kl/base/check.h"
#include "kl/base/endian.h"
#include "kl/base/ipaddr6.h"
#include "kl/base/root.h"
#include "kl/message/dump.h"
#include "kl/message/field_id.h"
#include "kl/message/message.h"
#include "kl/message/system.h"

#endif  // KL_KL_H_
