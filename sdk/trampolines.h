#pragma once

#include "core/callback_table.h"
#include "sdk/VelmoraSDK.h"

// The entries of the internal callback table. Each forwards to the host's callback, if there is one, without the
// context; what a host's callback throws ends here, so that it costs that one call.

VELMORA_API void internal_postDataCallback(void* context, int device, unsigned char value1, unsigned char value2,
                                           unsigned char value3, unsigned char value4, unsigned int* const values);
VELMORA_API void internal_rawDataCallback(void* context, int device, int channel, int* samples, int count);
VELMORA_API void internal_battInfoCallback(void* context, int device, unsigned int level, unsigned int value);
VELMORA_API void internal_eventCallback(void* context, unsigned int code, unsigned int value, void* detail);
VELMORA_API void internal_respCallback(void* context, int device, unsigned char command, unsigned char* frame,
                                       int length);

namespace kxorbeta_if {

/// Fills the table with these entries and a null context.
void installTrampolines(CallbackTable& table);

}  // namespace kxorbeta_if
