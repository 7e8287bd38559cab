package tivra.aidltest;

import tivra.aidltest.Sample;

interface ICallback {
    oneway void onSample(in Sample sample);
}
