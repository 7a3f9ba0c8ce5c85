# For a vendor's SDK that knows only make:
#   make -f target/device.mk CROSS_COMPILE=mips-linux-uclibc- SDK=/folder/of/the/platform/libraries
# CXX names another compiler, EVENT=event an SDK's libevent that is in one piece.
CXX = $(CROSS_COMPILE)g++
EVENT ?= event_core
SDK ?= $(error SDK names the folder of the platform libraries)
LIBRARIES = kelosyscfg tcapi api_lib_switchmgr api_libbsp_fe cfg_clisvc launcher
CXXFLAGS = -std=c++14 -Os -DNDEBUG -fno-exceptions -fno-rtti -fno-threadsafe-statics \
	-fno-asynchronous-unwind-tables -ffunction-sections -fdata-sections
OUTPUT ?= kelo-monitord

$(OUTPUT): $(wildcard src/*.cpp src/*.h sdk/*.h)
	$(CXX) $(CXXFLAGS) -Isrc -Isdk -s -Wl,--gc-sections -o $@ $(filter %.cpp,$^) \
		-nodefaultlibs -L$(SDK) -l$(EVENT) -Wl,--no-as-needed $(LIBRARIES:%=-l%) -lc -lgcc
