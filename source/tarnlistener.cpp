#include <tarnlistener.h>
