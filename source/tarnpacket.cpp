#include <tarnpacket.h>
