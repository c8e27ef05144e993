// The system abstraction layer: everything in one include.
#ifndef SAL_SAL_H
#define SAL_SAL_H

#include <sal/assert.h>
#include <sal/cmdprocessor.h>
#include <sal/hostaddress.h>
#include <sal/semaphore.h>
#include <sal/singleton.h>
#include <sal/tcpsocket.h>
#include <sal/thread.h>
#include <sal/timer.h>
#include <sal/types.h>
#include <sal/udpsocket.h>

#endif  // SAL_SAL_H
