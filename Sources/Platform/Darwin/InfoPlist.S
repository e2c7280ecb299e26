// The executable's Info.plist, in the section that macOS reads if a program has no bundle.
// INFO_PLIST is the path of the file.
        .section __TEXT,__info_plist,regular,no_dead_strip
        .incbin INFO_PLIST
