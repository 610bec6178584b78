# The versions of the two libraries. VelmoraSDK's stands in its header, where hosts can ask for it; the interface of
# velmora stays 0.x until it has met a real dongle. Packages, the Python package among them, carry velmora's.
file(STRINGS ${CMAKE_CURRENT_LIST_DIR}/../sdk/VelmoraSDK.h VELMORA_SDK_VERSION REGEX "define VELMORA_SDK_VERSION ")
string(REGEX REPLACE ".*\"(.*)\".*" "\\1" VELMORA_SDK_VERSION "${VELMORA_SDK_VERSION}")
set(VELMORA_VERSION 0.1.0)
