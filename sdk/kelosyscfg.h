/// What the daemon uses of libkelosyscfg, the device's closed system library.

#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// The GPON ONU state; 5 (operation) is the only one with the link up.
int syscfg_getGponState(void);

/// Stores the received optical power in dBm through `rxPower` and returns nonzero, or returns 0
/// when there is no reading. The other four readings are not asked for: pass null.
int syscfg_getLaserInfo(float *rxPower, void *reading2, void *reading3, void *reading4,
                        void *reading5);

/// Stores the byte counters of a port (1 to 4 LAN, 5 WAN, 6 and 7 wireless) and returns nonzero,
/// or returns 0 when the port cannot be read.
int syscfg_getPortBytes(int port, unsigned long long *in, unsigned long long *out);

/// Reboots the device; may return before it goes down.
int syscfg_reboot(void);

/// Restores the factory configuration.
int syscfg_restoreDefaultBg(void);

#ifdef __cplusplus
}
#endif
