# The Kit is a stack of static libraries, one per layer, each linking only the
# layers below it. What makes an include against the arrows fail to compile:
# a layer's headers are not found under Sources/ but through a folder of its
# own in the build tree that holds links to exactly those headers, and a target
# sees only the folders of the layers it links. So "TobrinKit/Engine/Conductor.h"
# simply does not exist for a file of the Packs layer.

# tobrin_add_layer(NAME [ALIAS Tobrin::X] SOURCES ... [USES ...] [PRIVATE ...])
# builds the layer of the current folder. Its headers are the folder's *.h
# files (not those of sub-folders, which are layers of their own); USES are the
# layers and libraries its headers expose, PRIVATE those only its sources use.
function(tobrin_add_layer name)
  cmake_parse_arguments(LAYER "" "ALIAS" "SOURCES;USES;PRIVATE" ${ARGN})
  file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${CMAKE_CURRENT_SOURCE_DIR} ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  file(RELATIVE_PATH folder ${PROJECT_SOURCE_DIR}/Sources ${CMAKE_CURRENT_SOURCE_DIR})
  set(exposed ${PROJECT_BINARY_DIR}/LayerHeaders/${name})
  file(REMOVE_RECURSE ${exposed})
  file(MAKE_DIRECTORY ${exposed}/${folder})
  foreach(header ${headers})
    file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${header} ${exposed}/${folder}/${header} SYMBOLIC)
  endforeach()

  if(LAYER_SOURCES)
    add_library(${name} STATIC ${LAYER_SOURCES} ${headers})
    target_include_directories(${name} PUBLIC ${exposed})
    target_link_libraries(${name} PUBLIC ${LAYER_USES} PRIVATE ${LAYER_PRIVATE})
    tobrin_target_defaults(${name})
  else()
    add_library(${name} INTERFACE ${headers})
    target_include_directories(${name} INTERFACE ${exposed})
    target_link_libraries(${name} INTERFACE ${LAYER_USES})
  endif()
  if(LAYER_ALIAS)
    add_library(${LAYER_ALIAS} ALIAS ${name})
  endif()
endfunction()
