#include <tarnconnection.h>
