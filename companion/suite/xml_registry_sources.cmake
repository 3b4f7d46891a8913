# The in-memory registry's model and text, free of the Windows API: KVTSOCK2.DLL, the native tests
# (tests/native) and the fuzzer (fuzz/) each build them from this list. Paths are relative to the
# project root. They write caller buffers through the library's bounded writers (frame/bounded_text.h).
set(DX_XML_REGISTRY_SOURCES
  companion/suite/xml_registry_model.cpp
  companion/suite/xml_registry_text.cpp)

# A static library `target` of those files with `options` for compiling and linking.
function(dx_xml_registry_library target root options)
  list(TRANSFORM DX_XML_REGISTRY_SOURCES PREPEND ${root}/ OUTPUT_VARIABLE files)
  add_library(${target} STATIC ${files})
  target_include_directories(${target} PUBLIC ${root}/companion/suite ${root}/frame)
  target_compile_options(${target} PUBLIC ${options})
  target_link_options(${target} PUBLIC ${options})
endfunction()
