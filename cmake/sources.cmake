# The source lists shared by the main build and the fuzz build. SRC names the src/ folder.
#   QUENMARK_CORE_SOURCES: everything above the Win32 seam, without main.
#   QUENMARK_SIM_SOURCES:  the simulated machine, without its two programs' mains.
#   QUENMARK_CONSOLE_EVENTS_SOURCES: real interrupts, for the programs that run on an OS.
file(GLOB QUENMARK_CORE_SOURCES CONFIGURE_DEPENDS
  ${SRC}/app/*.cpp ${SRC}/transport/*.cpp ${SRC}/drive/*.cpp ${SRC}/csmi/*.cpp
  ${SRC}/platform/console.cpp ${SRC}/platform/utf8.cpp ${SRC}/platform/ata_sense.cpp
  ${SRC}/platform/interrupts.cpp)
list(REMOVE_ITEM QUENMARK_CORE_SOURCES ${SRC}/app/main.cpp)

file(GLOB QUENMARK_SIM_SOURCES CONFIGURE_DEPENDS ${SRC}/sim/*.cpp)
list(REMOVE_ITEM QUENMARK_SIM_SOURCES ${SRC}/sim/sim_main.cpp ${SRC}/sim/make_image_main.cpp)
# The operating system's own console-control events: the product's backends and quenmark-sim.
set(QUENMARK_CONSOLE_EVENTS_SOURCES ${SRC}/platform/console_events.cpp)
