# For a vendor's SDK that knows only make:
#   make -f target/device.mk CROSS_COMPILE=mips-linux-uclibc- SDK=/folder/of/the/platform/libraries
SDK ?= $(error SDK names the folder of the platform libraries)
LIBRARIES = kelosyscfg tcapi api_lib_switchmgr api_libbsp_fe cfg_clisvc launcher
CXXFLAGS = -std=c++17 -Os -DNDEBUG -fno-exceptions -fno-rtti -fno-threadsafe-statics \
	-fno-asynchronous-unwind-tables -ffunction-sections -fdata-sections
OUTPUT ?= kelo-monitord

$(OUTPUT): $(wildcard src/*.cpp src/*.h sdk/*.h)
	$(CROSS_COMPILE)g++ $(CXXFLAGS) -Isrc -Isdk -s -Wl,--gc-sections -o $@ $(filter %.cpp,$^) \
		-nodefaultlibs -L$(SDK) -levent_core -Wl,--no-as-needed $(LIBRARIES:%=-l%) -lc -lgcc
