# Checks that the library asks for static TLS (the FLAGS entry STATIC_TLS of
# its dynamic section) exactly when it was built with ZT_STATIC_TLS: a library
# that is loaded with dlopen must not, or the load can fail.
execute_process(COMMAND ${READELF} -d ${LIBRARY} OUTPUT_VARIABLE dynamic RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "readelf failed on ${LIBRARY}")
endif()
string(FIND "${dynamic}" "STATIC_TLS" at)
if(STATIC AND at EQUAL -1)
  message(FATAL_ERROR "built with ZT_STATIC_TLS, but ${LIBRARY} does not use static TLS")
elseif(NOT STATIC AND NOT at EQUAL -1)
  message(FATAL_ERROR "built without ZT_STATIC_TLS, but ${LIBRARY} uses static TLS")
endif()
