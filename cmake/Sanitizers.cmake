# TAVIX_SANITIZE=address builds everything with AddressSanitizer and UndefinedBehaviorSanitizer,
# TAVIX_SANITIZE=thread with ThreadSanitizer. Both apply to the library, tests and tools alike.
if(TAVIX_SANITIZE STREQUAL "address")
  set(_san -fsanitize=address,undefined -fno-sanitize-recover=undefined)
elseif(TAVIX_SANITIZE STREQUAL "thread")
  set(_san -fsanitize=thread)
elseif(TAVIX_SANITIZE)
  message(FATAL_ERROR "TAVIX_SANITIZE must be 'address', 'thread' or empty, not '${TAVIX_SANITIZE}'")
endif()
if(_san)
  add_compile_options(${_san} -fno-omit-frame-pointer)
  add_link_options(${_san})
endif()
