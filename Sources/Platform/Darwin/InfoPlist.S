// The executable's Info.plist, in the section where macOS looks for that of a program without a
// bundle. INFO_PLIST is the path of the file.
        .section __TEXT,__info_plist,regular,no_dead_strip
        .incbin INFO_PLIST
