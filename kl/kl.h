// File: kl/kl.h
//
// The umbrella header: includes every public header of the kl library. A service may
// include this or only the subsystem headers it uses.
#ifndef KL_KL_H_
#define KL_KL_H_

#include "kl/base/check.h"
#include "kl/base/clock.h"
#include "kl/base/endian.h"
#include "kl/base/ipaddr6.h"
#include "kl/base/root.h"
#include "kl/log/logger.h"
#include "kl/log/lstream.h"
#include "kl/looper/control.h"
#include "kl/looper/handler.h"
#include "kl/looper/looper.h"
#include "kl/looper/policies.h"
#include "kl/message/dump.h"
#include "kl/message/field_id.h"
#include "kl/message/message.h"
#include "kl/message/system.h"
#include "kl/reget/async_getall.h"
#include "kl/reget/async_reget.h"
#include "kl/reget/reget.h"
#include "kl/runner/crash_report.h"
#include "kl/runner/fault_guard.h"
#include "kl/runner/runner.h"
#include "kl/runner/thin_runner.h"
#include "kl/store/allocator.h"
#include "kl/store/store.h"
#include "kl/store/wlock.h"
#include "kl/util/base64.h"
#include "kl/util/convert.h"
#include "kl/util/rate_limit.h"
#include "kl/util/system.h"
#include "kl/util/text.h"

#endif  // KL_KL_H_
