# quorvane_sign(TARGET [IDENTIFIER]): signs a companion, an executable of the calling CMakeLists.txt, each time that it is
# linked, with the identity QUORVANE_IDENTITY. The identifier is com.quorvane.app unless given. The signature is of the file
# in the build folder: whatever changes a copy of it (stripping, another RPATH) takes a new one.
if(APPLE)
  set(QUORVANE_IDENTITY "" CACHE STRING "Signs companions: the name of an identity in the keychain")
else()
  set(QUORVANE_IDENTITY "" CACHE PATH "Signs companions: a folder with leaf.pem and leaf.key")
endif()

function(quorvane_sign target)
  if(NOT QUORVANE_IDENTITY)
    message(STATUS "${target} will not be signed, so the helper will refuse it: QUORVANE_IDENTITY is not set")
    return()
  endif()
  set(identifier com.quorvane.app ${ARGN})
  list(POP_BACK identifier identifier)
  if(APPLE)
    set(sign codesign --force --options runtime --identifier ${identifier} --sign ${QUORVANE_IDENTITY})
  else()
    set(sign $<TARGET_FILE:Quorvane::codesign> sign --identity ${QUORVANE_IDENTITY} --identifier ${identifier})
  endif()
  add_custom_command(TARGET ${target} POST_BUILD COMMAND ${sign} $<TARGET_FILE:${target}> VERBATIM)
endfunction()
