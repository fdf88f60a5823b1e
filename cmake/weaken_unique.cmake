# SPDX-License-Identifier: MIT
# cmake -D NM=... -D OBJCOPY=... -D OBJECT=... -P weaken_unique.cmake: makes the unique symbols of an object
# weak. Outside of a group a unique symbol, such as a static member of a template, is a strong one to the
# linker, and a program with the same instantiation would define it twice.
execute_process(COMMAND "${NM}" --defined-only "${OBJECT}" OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL " u [^\n]+" unique "${symbols}")
string(REPLACE " u " "" unique "${unique}")
list(JOIN unique "\n" unique)
file(WRITE "${OBJECT}.unique" "${unique}\n")
execute_process(COMMAND "${OBJCOPY}" "--weaken-symbols=${OBJECT}.unique" "${OBJECT}" COMMAND_ERROR_IS_FATAL ANY)
