/// The board and its vendor libraries: LED lines, reset button, GPON link, optical power levels,
/// and the publication of the IPv6 status. Nothing else in the daemon touches the tc3162 proc
/// files, the configuration store or the omci command.
///
/// No function here keeps state, logs, or tells its caller of a failure.

#pragma once

#include <cstdint>

extern "C" {

/// Lights (`on` nonzero) or darkens the LED on a GPIO line by one command to
/// /proc/tc3162/gpio_output. A line that cannot be written is left alone. Always returns 0.
int platform_ledSet(uint8_t gpio, uint8_t on);

/// Puts the LED on a GPIO line out. Always returns 0.
int platform_ledInit(uint8_t gpio);

/// The value of /proc/tc3162/reset_button exactly as the driver reports it: 0 when the button is
/// up or the file does not hold a number, otherwise growing while the button is held.
int platform_getResetButton();

/// 1 while the GPON link is up (ONU state 5, operation), else 0.
uint8_t platform_isGponUp();

/// The level, 0 (weakest, or NaN) to 4, of a received optical power in dBm.
int platform_getLaserRxPowerLevel(float rxPower);

/// Publishes an IPv6 address of br0 (LAN), nas0* or ppp* (WAN) in the configuration store and has
/// omci take it up; the last call wins. Other families and interfaces are ignored.
///
/// `add` is nonzero for a new address and 0 for a removed one, `family` an AF_ value, `addrstr`
/// the text of `addr`, `prefixlen` its prefix length in bits.
void platform_ipinfo_ip(uint8_t add, const char *ifname, uint8_t family, const void *addr,
                        const char *addrstr, uint8_t prefixlen);

/// Publishes the gateway of an IPv6 default route, one whose `dst` is null, over nas0* or ppp*.
/// Other routes are ignored. `gwstr` is the text of `gw`, empty for a route without gateway.
void platform_ipinfo_route(uint8_t add, const char *ifname, uint8_t family, const void *dst,
                           const char *dststr, uint8_t dst_len, const void *gw, const char *gwstr);
}
