# The target documentation: runs doxygen on the file DOXYFILE.
find_program(BACKUP_DOXYGEN doxygen)
if(NOT BACKUP_DOXYGEN)
  message(FATAL_ERROR "The reference of the headers needs doxygen, which is not installed: apt-get install doxygen")
endif()
execute_process(COMMAND "${BACKUP_DOXYGEN}" "${DOXYFILE}" COMMAND_ERROR_IS_FATAL ANY)
