# lumaris_harden(TARGET): links a Windows program or library the way the product is linked. High-entropy
# address layout and data execution prevention, libraries from System32 only, a PDB beside it, and so no symbols inside. No time stamps:
# in their place stands a hash of the program, the same for the same content, which shows from which build an error report comes.
# The PDB keeps the linker's command line and folder, and its hash gets into the program: file names are relative to the build folder,
# which is called as the compiler calls it.
function(lumaris_harden target)
    set(beside $<PATH:RELATIVE_PATH,$<TARGET_FILE_DIR:${target}>,${CMAKE_BINARY_DIR}>/$<TARGET_FILE_BASE_NAME:${target}>)
    target_link_options(${target} PRIVATE
        -Wl,--dynamicbase -Wl,--high-entropy-va -Wl,--nxcompat -Wl,--no-insert-timestamp -Wl,-Xlink=-Brepro
        -Wl,-Xlink=-dependentloadflag:0x800 -Wl,-Xlink=-pdbaltpath:%_PDB%
        -Wl,-Xlink=-pdbsourcepath:/lumaris/build -Wl,--pdb=${beside}.pdb -Wl,-Map=${beside}.map)
endfunction()

# lumaris_gui_program(TARGET): a program of the GUI subsystem that starts at wWinMain.
function(lumaris_gui_program target)
    target_compile_options(${target} PRIVATE -municode)
    target_link_options(${target} PRIVATE -municode -mwindows)
    lumaris_harden(${target})
    if(LUMARIS_COVERAGE)
        target_link_libraries(${target} PRIVATE profile_at_terminate)
    endif()
endfunction()
