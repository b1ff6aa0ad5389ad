// linnet: every public header of the library.
#ifndef LINNET_LINNET_H
#define LINNET_LINNET_H

#include <linnet/logger.h>
#include <linnet/addr.h>
#include <linnet/socket.h>
#include <linnet/tcpsocket.h>
#include <linnet/udpsocket.h>
#include <linnet/sockgroup.h>
#include <linnet/epollgroup.h>
#include <linnet/stream.h>
#include <linnet/qtcpsocket.h>
#include <linnet/qfiletransf.h>
#include <linnet/compress.h>
#include <linnet/netif.h>
#include <linnet/routing.h>
#include <linnet/blockassembler.h>
#include <linnet/blockserver.h>
#include <linnet/version.h>

#endif
