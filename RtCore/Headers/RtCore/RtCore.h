/** @file
 * @ingroup RtCore
 * @brief The HalvosCore platform runtime (umbrella header). */
#ifndef RTCORE_RTCORE_H
#define RTCORE_RTCORE_H

#include <RtCore/RtBase.h>
#include <RtCore/RtString.h>
#include <RtCore/RtNumber.h>
#include <RtCore/RtDate.h>
#include <RtCore/RtData.h>
#include <RtCore/RtArray.h>
#include <RtCore/RtDictionary.h>
#include <RtCore/RtURL.h>
#include <RtCore/RtPropertyList.h>
#include <RtCore/RtBundle.h>
#include <RtCore/RtXMLTree.h>
#include <RtCore/RtRunLoop.h>

#endif
