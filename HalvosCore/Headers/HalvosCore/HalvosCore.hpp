/// @file
/// @ingroup HalvosCore
/// @brief The C++17 interface of HalvosCore.
///
/// Brings in the C API (<HalvosCore/HalvosCore.h>) and, in namespace hv (inline namespace
/// hv::v1): hv::Ref (Ref.hpp), hv::Value, hv::Record, hv::convert and HV_RECORD (Value.hpp),
/// hv::Fault, hv::TransportError and hv::CallRecord (Errors.hpp), hv::Client, hv::Result and
/// hv::RunLoop (Client.hpp), hv::Server (Server.hpp). The compiled parts live in libHalvosCore
/// itself: link as for the C API (HalvosCore::HalvosCore, or pkg-config --cflags --libs
/// HalvosCore). Exceptions never cross the C API: every C callback the C++ layer installs catches
/// what it calls.
#ifndef HALVOSCORE_HALVOSCORE_HPP
#define HALVOSCORE_HALVOSCORE_HPP

#include <HalvosCore/HalvosCore.h>

#include <HalvosCore/Client.hpp>
#include <HalvosCore/Errors.hpp>
#include <HalvosCore/Ref.hpp>
#include <HalvosCore/Value.hpp>
#include <HalvosCore/Server.hpp>

#endif
