package tivra.aidltest;

parcelable Sample {
    int id;
    @utf8InCpp String name;
    @nullable String note;
    List<String> tags;
}
