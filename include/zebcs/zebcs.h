/* All of the library's C interface. The role map's classes are C++ and stand in rolemap.hpp. */
#ifndef ZEBCS_ZEBCS_H
#define ZEBCS_ZEBCS_H

#include <zebcs/auth.h>
#include <zebcs/dasupport.h>
#include <zebcs/encoding.h>
#include <zebcs/frame.h>
#include <zebcs/hashid.h>
#include <zebcs/ini.h>
#include <zebcs/ipc.h>
#include <zebcs/keyvalue.h>
#include <zebcs/list.h>
#include <zebcs/logs.h>
#include <zebcs/net.h>
#include <zebcs/number.h>
#include <zebcs/param.h>
#include <zebcs/product.h>
#include <zebcs/rolemap.h>
#include <zebcs/system.h>
#include <zebcs/types.h>
#include <zebcs/unistr.h>
#include <zebcs/xmlbuf.h>

#endif
