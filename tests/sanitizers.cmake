# What a sanitizer can find nothing in is neither built nor run under it. Everything else is. This
# list is the whole choice, for .ci/run as for TOV_PRESET=asan and TOV_PRESET=tsan.
#
# A row is a regular expression over test names, a device test's up to its program, and the reason.

# Sets `out` to the rows of this form: a regular expression, a reason, a regular expression, ...
function(tov_sanitizer_rows out)
  # Neither under the address nor under the thread sanitizer.
  set(not_sanitized
    "^product\\."
      "what is installed and its size are those of the release form"
    "^unit\\.include\\.layout$"
      "sizes and offsets: the compiler has said it all"
    "^device\\.private_device"
      "tries the tests' own equipment, with programs never sanitized"
    "^device\\.(listed_manners|real_daemons_serial)_test$"
      "more programs: what the daemon does for them is what device.listed_service_test tries"
    "^chaos\\.looks\\."
      "tries the judge, on daemons that are broken on purpose"
    "^demo\\."
      "the same daemon, once more with words for spectators")

  # Not under the thread sanitizer: one thread, which has no other to race with.
  set(one_thread
    "^fuzz\\."
      "parsers"
    "^unit\\."
      "decisions, over a simulated kernel"
    "^module\\.alive\\.(shared_memory|tov_ras_os)$"
      "system calls, and processes that share memory"
    "^module\\.core\\.registry\\.query$"
      "a list, read by one thread"
    "^module\\.client\\.(tov_xtach_fd|tov_xtach_file|tov_xtach_sem)$"
      "files and semaphores"
    "^module\\.core\\.(setup|third_part)$"
      "the start of the daemon, before its threads"
    "^module\\.core\\.policy\\.(announce|mass|rebuild)$"
      "decisions, called by one thread"
    "^module\\.log\\.(ha_notice|notice)$"
      "texts"
    "^module\\.platform\\.generic\\.tov_platform_(health|syslog)$"
      "texts, and children of one thread"
    "^module\\.util\\.(list_file|path)$"
      "parsers"
    "^module\\.vsd\\.(accounting|create|delete|entry|group|kill|marker|member|place|show|tov_opt)$"
      "the command line, which never has a second thread")

  set(rows "")
  if(TOV_SANITIZE)
    set(rows ${not_sanitized})
  endif()
  if(TOV_SANITIZE STREQUAL "thread")
    list(APPEND rows ${one_thread})
  endif()
  set(${out} ${rows} PARENT_SCOPE)
endfunction()

# A row that fits no test any more must not hide a wrong name: it stops the configuration.
function(tov_check_sanitizer_rows)
  if(NOT TOV_SANITIZE)
    return()
  endif()
  get_property(used GLOBAL PROPERTY tov_rows_used)
  tov_sanitizer_rows(rows)
  while(rows)
    list(POP_FRONT rows tests reason)
    if(NOT tests IN_LIST used)
      message(FATAL_ERROR "tests/sanitizers.cmake: no test is named ${tests} (${reason})")
    endif()
  endwhile()
endfunction()

# Sets `out` to whether the test `name` is to be built and run in this form.
function(tov_is_tested name out)
  tov_sanitizer_rows(rows)
  set(tested TRUE)
  while(rows)
    list(POP_FRONT rows tests reason)
    if(name MATCHES "${tests}")
      set_property(GLOBAL APPEND PROPERTY tov_rows_used "${tests}")
      set(tested FALSE)
    endif()
  endwhile()
  set(${out} ${tested} PARENT_SCOPE)
endfunction()
