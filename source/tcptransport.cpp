#include <tcptransport.h>
