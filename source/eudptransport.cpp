#include <eudptransport.h>
