#include <sal/sal.h>
