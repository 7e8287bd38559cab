package tivra.aidltest;

import tivra.aidltest.ICallback;
import tivra.aidltest.Sample;

// Every peer answers alike: echo gives the sample back with `note` as its
// note and fills codes[i] with the sample's id (0 without one) plus i; pick
// gives `second`; post hands the sample to the callback.
interface IPeer {
    @nullable Sample echo(in @nullable Sample sample, @nullable String note, out int[] codes);
    @nullable ICallback pick(ICallback first, @nullable ICallback second);
    oneway void post(ICallback callback, in Sample sample);
}
