#include <parameterlist.h>
