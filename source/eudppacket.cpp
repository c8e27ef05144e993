#include <eudppacket.h>
