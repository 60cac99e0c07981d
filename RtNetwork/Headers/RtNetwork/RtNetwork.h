/** @file
 * @ingroup RtNetwork
 * @brief HTTP messages and read streams (umbrella header). */
#ifndef RTNETWORK_RTNETWORK_H
#define RTNETWORK_RTNETWORK_H

#include <RtCore/RtCore.h>
#include <RtNetwork/RtHTTPMessage.h>
#include <RtNetwork/RtReadStream.h>

#endif
