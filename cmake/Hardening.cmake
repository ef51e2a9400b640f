# Compiles and links everything so that a fault of memory is harder to make use of. The sanitizers
# find such faults instead, and want the code plain.
include(CMakeDependentOption)
cmake_dependent_option(DIRWARDEN_HARDENING "Stack protection, checked C calls, PIE, full RELRO" ON
  "NOT DIRWARDEN_SANITIZE" OFF)

# The tests put themselves between the program and calls such as open and read (--wrap). The checked
# calls have other names, and some compilers check without being asked.
if(DIRWARDEN_TESTS)
  add_compile_options(-U_FORTIFY_SOURCE)
endif()

if(DIRWARDEN_HARDENING)
  include(CheckCXXCompilerFlag)
  # Not CMake's own setting: that compiles the libraries for shared ones, with fewer calls inlined.
  add_compile_options(-fPIE)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "DIRWARDEN_HAS${flag}" result)
    check_cxx_compiler_flag(${flag} ${result})
    if(${result})
      add_compile_options(${flag})
    endif()
  endforeach()
  if(NOT DIRWARDEN_TESTS)
    # Needs optimisation.
    add_compile_options(
      "$<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
  endif()
  if(NOT APPLE)
    add_link_options(-pie LINKER:-z,relro,-z,now)
  endif()
endif()
